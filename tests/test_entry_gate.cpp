// The entry gate's counts: each thread's own, handed on once its thread has
// ended, the shared stripes, and the sweep that tells callers out.
#include <gtest/gtest.h>
#include <linux/membarrier.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <latch>
#include <mutex>
#include <semaphore>
#include <set>
#include <thread>

#include "core/entry_gate.h"
#include "support/thread_group.h"

namespace varnix {
namespace {

bool kernel_has_barrier() {
    const long cmds = syscall(SYS_membarrier, MEMBARRIER_CMD_QUERY, 0u, 0);
    return cmds > 0 && (cmds & MEMBARRIER_CMD_PRIVATE_EXPEDITED) != 0;
}

// The calling thread settled at the gate.
GateCount* settle_here() {
    settle_gate(thread_own, static_cast<pid_t>(syscall(SYS_gettid)));
    return thread_own.own_gate;
}

// A thread inside the gate, settled or on the first stripe, until it leaves.
class Caller {
public:
    explicit Caller(bool settle) : thread_([this, settle] {
        if (settle) own = settle_here();
        const EntryGate gate;
        inside_.count_down();
        leave_.acquire();
    }) {
        inside_.wait();
    }
    void leave() {
        leave_.release();
        thread_.join();
    }
    GateCount* own = nullptr;

private:
    std::latch inside_{1};
    std::binary_semaphore leave_{0};
    std::thread thread_;
};

class EntryGateTest : public testing::Test {
protected:
    void SetUp() override {
        if (!kernel_has_barrier()) GTEST_SKIP() << "the kernel has no private expedited membarrier";
        prepare_gate_barrier();
    }
};

// Threads alive at once own distinct counts; more threads than counts, one
// after another, each own one: the counts of ended threads are taken again.
TEST_F(EntryGateTest, OwnCountsAreHandedOnOnceTheirThreadsEnded) {
    std::set<GateCount*> held;
    std::mutex held_lock;
    {
        test::ThreadGroup alive(8, [&](int) {
            GateCount* own = settle_here();
            const std::lock_guard guard(held_lock);
            held.insert(own);
        });
    }
    EXPECT_EQ(held.size(), 8u);
    EXPECT_EQ(held.count(nullptr), 0u);
    int stripes = 0;
    for (int i = 0; i < kOwnGateCounts + 64; ++i) std::thread([&] { stripes += settle_here() == nullptr; }).join();
    EXPECT_EQ(stripes, 0);
}

// A sweep waits for the callers inside when it starts, on their own counts
// or on a stripe, and not for those who enter later on a count it saw free.
TEST_F(EntryGateTest, SweepWaitsForTheCallersInsideWhenItStarts) {
    Caller own(true), stripe(false);
    ASSERT_NE(own.own, nullptr);
    GateSweep sweep;
    ASSERT_TRUE(sweep.start());
    EXPECT_FALSE(sweep.done());
    own.leave();
    EXPECT_FALSE(sweep.done());
    Caller later(true);
    ASSERT_NE(later.own, nullptr);
    stripe.leave();
    EXPECT_TRUE(sweep.done());
    later.leave();
}

}  // namespace
}  // namespace varnix
