#include "core/entry_gate.h"

#include <ctime>

#include "core/clock.h"
#include "core/cxt_table.h"

namespace varnix {

GateStripe gate_stripes[kGateStripes];
MTR_CXT_VAR no_context;
constinit thread_local ThreadOwn thread_own{&gate_stripes[0], {}};

void settle_gate_stripe(ThreadOwn& self) {
    self.stripe = &gate_stripes[handle_bucket_of(static_cast<uint64_t>(pthread_self())) % kGateStripes];
}

bool wait_callers_out(int budget_ms) {
    const int64_t deadline = monotonic_us() + static_cast<int64_t>(budget_ms) * 1000;
    // A stripe seen at zero once is done: a caller counted there before the
    // mark was withdrawn keeps it above zero until it leaves, and callers
    // counted later leave without touching anything.
    for (GateStripe& s : gate_stripes) {
        long pause_ns = 20'000;
        while (s.inside.load(std::memory_order_seq_cst) != 0) {
            if (monotonic_us() >= deadline) return false;
            timespec ts{0, pause_ns};
            (void)nanosleep(&ts, nullptr);  // an interruption only shortens the pause
            if (pause_ns < 1'000'000) pause_ns *= 2;
        }
    }
    return true;
}

void reset_gate_after_fork() {
    for (GateStripe& s : gate_stripes) s.inside.store(0, std::memory_order_relaxed);
}

}  // namespace varnix
