#include "core/entry_gate.h"

#include <linux/membarrier.h>
#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>
#include <span>

#include "core/clock.h"
#include "core/cxt_table.h"
#include "core/log_printf.h"

namespace varnix {

GateCount gate_counts[kGateCounts];
MTR_CXT_VAR no_context;
constinit thread_local ThreadOwn thread_own{nullptr, &gate_counts[0], false, {}};

namespace {

// Set once the kernel has registered the process for the barrier; it stays
// set, but in a forked child, which registers again when it starts.
std::atomic<bool> barrier_ready{false};

// How many ended holders a thread that finds every count taken looks for at
// most, each a system call, from where the last one stopped.
constexpr int kHoldersLookedAt = 64;
std::atomic<uint32_t> look_from{0};

long membarrier(int cmd) { return syscall(SYS_membarrier, cmd, 0u, 0); }

std::span<GateCount> own_counts() { return {gate_counts + kGateStripes, kOwnGateCounts}; }

std::atomic_ref<pid_t> holder_of(GateCount& c) { return std::atomic_ref<pid_t>(c.holder); }
int32_t inside(GateCount& c) { return gate_detail::inside_of(c).load(std::memory_order_seq_cst); }

bool take_free(GateCount& c, pid_t ktid) {
    pid_t free = 0;
    return holder_of(c).load(std::memory_order_relaxed) == 0 &&
           holder_of(c).compare_exchange_strong(free, ktid, std::memory_order_acq_rel);
}

// A count whose holder has ended, with nobody inside: a thread that ended
// inside an entry keeps its count, and the stop waiting for it.
bool take_abandoned(GateCount& c, pid_t pid, pid_t ktid) {
    pid_t holder = holder_of(c).load(std::memory_order_acquire);
    if (holder <= 0 || syscall(SYS_tgkill, pid, holder, 0) == 0 || errno != ESRCH) return false;
    return inside(c) == 0 && holder_of(c).compare_exchange_strong(holder, ktid, std::memory_order_acq_rel);
}

GateCount* claim_own_count(pid_t ktid) {
    if (ktid <= 0 || !barrier_ready.load(std::memory_order_acquire)) return nullptr;
    for (GateCount& c : own_counts())
        if (take_free(c, ktid)) return &c;
    const pid_t pid = getpid();
    const uint32_t from = look_from.fetch_add(kHoldersLookedAt, std::memory_order_relaxed);
    for (uint32_t i = 0; i < kHoldersLookedAt; ++i)
        if (GateCount& c = own_counts()[(from + i) % kOwnGateCounts]; take_abandoned(c, pid, ktid)) return &c;
    return nullptr;
}

}  // namespace

void prepare_gate_barrier() {
    if (!barrier_ready.load(std::memory_order_relaxed) && membarrier(MEMBARRIER_CMD_REGISTER_PRIVATE_EXPEDITED) == 0)
        barrier_ready.store(true, std::memory_order_release);
}

void settle_gate(ThreadOwn& self, pid_t ktid) {
    if (self.gate_settled) return;
    self.gate_settled = true;
    self.own_gate = claim_own_count(ktid);
    if (!self.own_gate)
        self.stripe = &gate_counts[handle_bucket_of(static_cast<uint64_t>(pthread_self())) % kGateStripes];
}

bool GateSweep::start() {
    out_.reset();
    // Own counts are handed out only once the barrier is ready.
    started_ = !barrier_ready.load(std::memory_order_acquire) || membarrier(MEMBARRIER_CMD_PRIVATE_EXPEDITED) == 0;
    if (!started_) log_printf("<!> entry gate barrier error %d, callers cannot be told out", errno);
    return started_;
}

bool GateSweep::done() {
    if (!started_) return false;
    for (int i = 0; i < kGateCounts; ++i)
        if (!out_[i] && inside(gate_counts[i]) == 0) out_[i] = true;
    return out_.all();
}

bool wait_callers_out(int budget_ms) {
    const int64_t deadline = monotonic_us() + static_cast<int64_t>(budget_ms) * 1000;
    GateSweep sweep;
    if (!sweep.start()) return false;
    long pause_ns = 20'000;
    while (!sweep.done()) {
        if (monotonic_us() >= deadline) return false;
        timespec ts{0, pause_ns};
        (void)nanosleep(&ts, nullptr);  // an interruption only shortens the pause
        if (pause_ns < 1'000'000) pause_ns *= 2;
    }
    return true;
}

// The child's one thread is inside no entry: every count is free and empty.
void reset_gate_after_fork() {
    for (GateCount& c : gate_counts) c = GateCount{};
    barrier_ready.store(false, std::memory_order_relaxed);
    thread_own.own_gate = nullptr;
    thread_own.stripe = &gate_counts[0];
    thread_own.gate_settled = false;
}

}  // namespace varnix
