// A collector that removes its objects and creates them anew under a traced
// process: the process takes up the new ones and lets go of the old ones.
#include <gtest/gtest.h>
#include <sys/shm.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "core/entry_gate.h"
#include "support/outcome.h"
#include "support/service_calls.h"
#include "support/thread_group.h"
#include "support/tracing.h"

namespace varnix::test {
namespace {

int32_t event() {
    return TRAN_EVENT(-1, nullptr, 0, nullptr, 0, nullptr, 0, nullptr, 0, nullptr, 0, nullptr, 0, nullptr, 0, "1", -1,
                      nullptr, 0, nullptr, 0, nullptr, 0);
}

// Sent, or refused by a full queue (nobody drains them all the time here).
bool traced(int32_t rc) { return (rc >= 0 && rc < VARNIX_MAX_QUE_CNT) || rc == VARNIX_RC_SEND_FAIL; }

// Polls `done` for up to 10 s.
template <typename Done>
bool within_10s(Done done) {
    const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    for (; !done(); std::this_thread::sleep_for(std::chrono::milliseconds(5)))
        if (std::chrono::steady_clock::now() > until) return false;
    return true;
}

// Polls the diagnostic log for `line`.
bool logged(LogTail& log, const std::string& line) {
    std::vector<std::string> seen;
    return within_10s([&] {
        const std::vector<std::string> more = log.take();
        seen.insert(seen.end(), more.begin(), more.end());
        return std::find(seen.begin(), seen.end(), line) != seen.end();
    });
}

// Registered entries of this process.
int registered(const PTRC_HASH_TBL& t) {
    int n = 0;
    for (const PTRC_HASH& e : t.entry) n += e.pid == getpid() && e.ptrc_state == VARNIX_PTRC_REGISTERED;
    return n;
}

// Threads trace throughout, and this thread has a service open, when the objects are created anew.  Records flow to
// the new queues, threads register in the new table, the new control block's switches count, the open service is
// dropped.  The old blocks go: the control block and the service table at once, the old table once no caller that
// entered before the switch is inside (one is held here).  The stop leaves nothing attached.
TEST(Reattach, TracingTakesUpObjectsTheCollectorCreatesAnew) {
    TestIpc& ipc = TestIpc::get();
    ASSERT_EQ(start_tracing(), 0);
    ServiceCall open{.gid = "GID-OPEN", .svc_id = "SVC-OPEN"};
    ASSERT_TRUE(traced(call(TRAN_START, open)));
    std::atomic<bool> stop{false};
    std::atomic<int32_t> unexpected{0};
    ThreadGroup tracers(3, [&](int) {
        while (!stop.load()) {
            // 116, 107: a bounded wait ran out; 100: events switched off below.
            const int32_t rc = event();
            if (!traced(rc) && rc != VARNIX_RC_PTRC_FULL && rc != VARNIX_RC_NO_CONTEXT && rc != VARNIX_RC_CLASS_OFF)
                unexpected.store(rc);
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    });
    struct Stop {  // before the group joins, also on a failed assertion
        std::atomic<bool>& flag;
        ~Stop() { flag = true; }
    } stop_first{stop};

    const kit::Collector::Ids was = ipc.collector().ids();
    LogTail log;
    std::optional<EntryGate> inside{std::in_place};  // a caller from before the switch
    ASSERT_EQ(ipc.recreate(), 0);
    const kit::Collector::Ids& is = ipc.collector().ids();
    ASSERT_TRUE(logged(log, fmt("(I) collector objects re-created, re-attached: TRAN_LOGF_QUE_INFO shmid %d->%d, "
                                "SVC_HASH_TBL shmid %d->%d semid %d->%d, PTRC_HASH_TBL shmid %d->%d semid %d->%d",
                                was.que_info_shm, is.que_info_shm, was.svc_shm, is.svc_shm, was.svc_sem, is.svc_sem,
                                was.ptrc_shm, is.ptrc_shm, was.ptrc_sem, is.ptrc_sem)));
    EXPECT_TRUE(within_10s([&] { return ipc.collector().drain() > 0; }));

    EXPECT_EQ(call(TRAN_END, open), VARNIX_RC_SVC_DEPTH);
    const uint64_t self = static_cast<uint64_t>(pthread_self());
    EXPECT_TRUE(logged(log, fmt("(I) mtr_tid_idx#%d, tid %lu service (depth 1) dropped: ptrc_hash_tbl re-created",
                                handle_bucket_of(self), static_cast<unsigned long>(self))));
    std::thread([] { EXPECT_TRUE(traced(event())); }).join();
    EXPECT_TRUE(within_10s([&] { return registered(*ipc.collector().ptrc()) == 5; }));  // tracers, this, a newcomer
    ipc.que_info().log_flag_set = VARNIX_FLAG_S;
    EXPECT_EQ(event(), VARNIX_RC_CLASS_OFF);
    ipc.que_info().log_flag_set = 0xFF;

    shmid_ds ds{};
    for (int id : {was.que_info_shm, was.svc_shm})
        EXPECT_EQ(outcome([&] { return shmctl(id, IPC_STAT, &ds); }), failed(EINVAL)) << id;
    std::this_thread::sleep_for(std::chrono::milliseconds(700));  // the writer thread looks in that time
    ASSERT_EQ(shmctl(was.ptrc_shm, IPC_STAT, &ds), 0);
    EXPECT_EQ(ds.shm_nattch, 1u);
    inside.reset();
    EXPECT_TRUE(logged(log, fmt("(I) replaced ptrc_hash_tbl detached (shmid %d)", was.ptrc_shm)));
    EXPECT_EQ(outcome([&] { return shmctl(was.ptrc_shm, IPC_STAT, &ds); }), failed(EINVAL));

    stop.store(true);
    tracers.join();
    EXPECT_EQ(unexpected.load(), 0);
    stop_tracing();
    ASSERT_EQ(shmctl(is.ptrc_shm, IPC_STAT, &ds), 0);
    EXPECT_EQ(ds.shm_nattch, 1u);  // the collector's own
}

}  // namespace
}  // namespace varnix::test
