// The entry gate: every public entry that reaches the process block or the
// shared blocks holds an EntryGate for its whole run, so that the library's
// stop can tell when no caller is inside any more before it detaches what
// those callers read.
//
// A caller must leave, so the library's cancellation points (the message
// queue and semaphore calls, the log) run with cancellation disabled
// (core/no_cancel.h): a host thread is never cancelled inside.
//
// Callers count themselves in a GateCount, raised before the caller reads
// init_mark (or the table generation) and lowered (release) when it leaves;
// whoever withdraws the mark changes it first and then sweeps the counts
// (GateSweep): either the caller sees the change and leaves without touching
// anything, or the sweep sees the caller and waits for it.
//
// A thread that has settled owns a count of its own, which only it writes:
// no locked instruction on the way in or out.  The store that raises it may
// still sit in the processor's store buffer when the caller reads the mark;
// the sweep therefore starts with membarrier(2)'s process-wide barrier, which
// every thread of the process passes with a full memory barrier: a caller's
// raise is either seen by the sweep or followed by a read that sees the
// change.  Threads that own no count (before they settle, when every count is
// taken, or where the kernel has no such barrier) count themselves in one of
// a few shared stripes with locked operations, spread over cache lines by
// thread.
//
// A count's holder is its thread's kernel thread id.  Threads end without a
// word to the library, so a thread that finds every count taken takes one
// whose holder has ended (tgkill answers ESRCH) and that nobody is inside.
// A forked child starts afresh: its one thread settles again.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <bitset>
#include <cstdint>

#include "core/thread_own.h"

namespace varnix {

inline constexpr int kGateStripes = 32;
inline constexpr int kOwnGateCounts = 1024;
inline constexpr int kGateCounts = kGateStripes + kOwnGateCounts;

// Callers inside, read and written through std::atomic_ref, but for the
// owner's own raise and lower.
struct alignas(64) GateCount {
    int32_t inside;
    pid_t holder;  // own counts: the thread's kernel id, 0 while free
};
// The stripes first, then the own counts.
[[gnu::visibility("hidden")]] extern GateCount gate_counts[kGateCounts];

// Makes the process-wide barrier ready, once per process, before init_mark
// is first set: until then no thread is given a count of its own.  It may
// take the kernel a few milliseconds.  Under the library's process lock.
void prepare_gate_barrier();

// Gives the calling thread (`self`, kernel thread id `ktid`) its own count
// where one is free, else its stripe.  Once per thread; a gate leaves the
// count it entered, whatever the thread settles in meanwhile.
void settle_gate(ThreadOwn& self, pid_t ktid);

// A thread sanitizer must see the own counts' accesses as atomics.
#if defined(__SANITIZE_THREAD__)
#define VARNIX_GATE_SANITIZED 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define VARNIX_GATE_SANITIZED 1
#endif
#endif

namespace gate_detail {

// The count as an atomic: for the stripes' locked changes and every reader.
inline std::atomic_ref<int32_t> inside_of(GateCount& c) { return std::atomic_ref<int32_t>(c.inside); }

// The owner's change of its own count: one plain read-modify-write, as
// nobody else writes it, and a compiler barrier, so that the raise comes
// before the caller reads the mark and the lower after all it did inside.
// The processor keeps the order of stores and makes the lower a release;
// the raise's store is ordered before later loads by the sweep's barrier.
// Where the one instruction is not at hand, or under a thread sanitizer,
// the same through atomics.
inline void change_own(GateCount& c, int32_t by) {
#if defined(__x86_64__) && !defined(VARNIX_GATE_SANITIZED)
    asm volatile("addl %1, %0" : "+m"(c.inside) : "ri"(by) : "memory");
#else
    const std::atomic_ref<int32_t> inside = inside_of(c);
    inside.store(inside.load(std::memory_order_relaxed) + by, std::memory_order_release);
    std::atomic_signal_fence(std::memory_order_seq_cst);
#endif
}

}  // namespace gate_detail

class EntryGate {
public:
    // `self`: the calling thread's thread_own, for an entry that reads it again.
    explicit EntryGate(ThreadOwn& self = thread_own)
        : own_(self.own_gate != nullptr), count_(own_ ? *self.own_gate : *self.stripe) {
        if (own_) [[likely]]
            gate_detail::change_own(count_, 1);
        else
            gate_detail::inside_of(count_).fetch_add(1, std::memory_order_seq_cst);
    }
    ~EntryGate() {
        if (own_) [[likely]]
            gate_detail::change_own(count_, -1);
        else
            gate_detail::inside_of(count_).fetch_sub(1, std::memory_order_release);
    }
    EntryGate(const EntryGate&) = delete;
    EntryGate& operator=(const EntryGate&) = delete;

private:
    const bool own_;
    GateCount& count_;
};

// Tells when every caller that may have missed a change (a withdrawn
// init_mark, a raised table generation) has left: start it after the change,
// then ask until done.  A count seen at zero once holds none of them; callers
// counted later saw the change.
class GateSweep {
public:
    // False when the barrier failed: nothing can be told, done stays false.
    bool start();
    bool done();

private:
    bool started_ = false;
    std::bitset<kGateCounts> out_;
};

// After init_mark has been withdrawn: waits until no caller that saw it set
// is still inside, for at most `budget_ms`.  True when none is.
bool wait_callers_out(int budget_ms);
// A forked child has only the thread that forked.
void reset_gate_after_fork();

}  // namespace varnix
