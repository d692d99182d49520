// The entry gate: every public entry that reaches the process block or the
// shared blocks holds an EntryGate for its whole run, so that the library's
// stop can tell when no caller is inside any more before it detaches what
// those callers read.
//
// A caller must leave, so the library's cancellation points (the message
// queue and semaphore calls, the log) run with cancellation disabled
// (core/no_cancel.h): a host thread is never cancelled inside.
//
// Callers count themselves in one of a few counters picked by their thread,
// so that threads on different cores do not share a cache line.  The count
// is raised (sequentially consistent) before the caller reads init_mark, and
// the stop clears init_mark (sequentially consistent) before it reads the
// counts: either the caller sees the cleared mark and leaves without touching
// anything, or the stop sees the caller and waits for it.
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstdint>

#include "core/cxt_table.h"
#include "core/thread_own.h"

namespace varnix {

inline constexpr int kGateStripes = 32;

struct alignas(64) GateStripe {
    std::atomic<int32_t> inside{0};
};
[[gnu::visibility("hidden")]] extern GateStripe gate_stripes[kGateStripes];

// A thread counts itself in the first stripe until it settles in its own,
// when it first looks a context up: spread as the context buckets are, by the
// bits of the handle that differ between threads.  A gate leaves the stripe
// it entered, whatever the thread settles in meanwhile.
void settle_gate_stripe(ThreadOwn& self);

class EntryGate {
public:
    // `self`: the calling thread's thread_own, for an entry that reads it again.
    explicit EntryGate(ThreadOwn& self = thread_own) : stripe_(*self.stripe) {
        stripe_.inside.fetch_add(1, std::memory_order_seq_cst);
    }
    ~EntryGate() { stripe_.inside.fetch_sub(1, std::memory_order_release); }
    EntryGate(const EntryGate&) = delete;
    EntryGate& operator=(const EntryGate&) = delete;

private:
    GateStripe& stripe_;
};

// After init_mark has been withdrawn: waits until no caller that saw it set
// is still inside, for at most `budget_ms`.  True when none is.
bool wait_callers_out(int budget_ms);
// A forked child has only the thread that forked.
void reset_gate_after_fork();

}  // namespace varnix
