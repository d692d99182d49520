#include <sys/ipc.h>
#include <sys/msg.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <thread>
#include <utility>

#include "core/ipc.h"
#include "core/log_printf.h"
#include "support/log_capture.h"
#include "support/outcome.h"
#include "support/test_ipc.h"
#include "support/thread_group.h"
#include "support/tracing.h"

namespace varnix {
namespace {

using namespace test;
using Clock = std::chrono::steady_clock;

// The first text byte (here a sequence number) of the next record of `type`, never waiting; -1: none.
int next_seq(int qid, long type) {
    TRAN_LOG_MSG m{};
    return read_msgq(qid, type, &m, VARNIX_REC_TEXT, 1) >= 0 ? static_cast<unsigned char>(m.text[0]) : -1;
}

// A queue of the test's own at the last key of this process's block (the collector uses four), removed at the end.
struct ScratchQueue {
    const key_t key = kit::keys_for_pid(getpid()).msgq + VARNIX_MAX_QUE_CNT - 1;
    int id = kit::create_queue(key);
    ~ScratchQueue() {
        if (id >= 0) kit::remove_queue(id);
    }
};

class Msgq : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(ipc_.ok() && LogCapture::get().ok());
        ipc_.collector().drain();
        LogCapture::get().take();
    }
    void TearDown() override { ipc_.collector().drain(); }
    int qid(int q) const { return ipc_.collector().msgq_id(q); }
    TestIpc& ipc_ = TestIpc::get();
};

TEST_F(Msgq, SendAndReadCarryRecordsByTypeAndAFullQueueRefusesAtOnce) {
    const key_t base = ipc_.default_config().keys.msgq;
    EXPECT_EQ(create_msgq(base + 1), qid(1));
    EXPECT_EQ(outcome([&] { return create_msgq(base + ipc_.collector().max_que_cnt()); }), failed(ENOENT));

    // Type 2 takes the first of type 2, 0 the first of any.
    TRAN_LOG_MSG m{3, {30}};
    EXPECT_EQ(outcome([&] { return send_msgq(qid(1), &m, VARNIX_REC_TEXT); }), ok(0));
    ASSERT_EQ(send_msgq(qid(1), &(m = {2, {20}}), VARNIX_REC_TEXT), 0);
    EXPECT_EQ(next_seq(qid(1), 2), 20);
    EXPECT_EQ(next_seq(qid(1), 0), 30);
    EXPECT_EQ(outcome([&] { return read_msgq(qid(1), 0, &m, VARNIX_REC_TEXT, 1); }), failed(ENOMSG));
    // A text larger than the buffer stays in the queue.
    ASSERT_EQ(send_msgq(qid(1), &m, 100), 0);
    EXPECT_EQ(outcome([&] { return read_msgq(qid(1), 0, &m, 50, 1); }), failed(E2BIG));
    EXPECT_EQ(outcome([&] { return read_msgq(qid(1), 0, &m, VARNIX_REC_TEXT, 1); }), ok(100));
    // A full queue refuses at once; the own queue is cut to 20 records, whatever kernel.msgmnb says.
    constexpr int kFits = 20;
    ScratchQueue scratch;
    ASSERT_GE(scratch.id, 0);
    msqid_ds ds{};
    ASSERT_EQ(msgctl(scratch.id, IPC_STAT, &ds), 0);
    ds.msg_qbytes = kFits * VARNIX_REC_TEXT;
    ASSERT_EQ(msgctl(scratch.id, IPC_SET, &ds), 0);
    for (char seq = 0; seq < kFits; ++seq) ASSERT_EQ(send_msgq(scratch.id, &(m = {1, {seq}}), VARNIX_REC_TEXT), 0);
    EXPECT_EQ(outcome([&] { return send_msgq(scratch.id, &m, VARNIX_REC_TEXT); }), failed(EAGAIN));
    EXPECT_EQ(get_msgq_num(scratch.id), kFits);
    for (int seq = 0; seq < kFits; ++seq) ASSERT_EQ(next_seq(scratch.id, 0), seq);
    EXPECT_EQ(send_msgq(scratch.id, &m, VARNIX_REC_TEXT), 0);

    // Mode and removal.  The mode is octal permission bits.
    EXPECT_EQ(outcome([&] { return change_mode_msgq(scratch.id, "7"); }), ok(0));
    for (const char* bad : {"", "rw-", "9", static_cast<const char*>(nullptr)})
        EXPECT_EQ(outcome([&] { return change_mode_msgq(scratch.id, bad); }), failed(EINVAL)) << bad;
    ASSERT_EQ(msgctl(scratch.id, IPC_STAT, &ds), 0);
    EXPECT_EQ(ds.msg_perm.mode & 0777, 0007u);
    // A removed queue's id fails every operation with the system's error, quietly.
    const int old_id = std::exchange(scratch.id, -1);
    EXPECT_EQ(outcome([&] { return remove_msgq(old_id); }), ok(0));
    EXPECT_EQ(outcome([&] { return send_msgq(old_id, &m, VARNIX_REC_TEXT); }), failed(EINVAL));
    EXPECT_EQ(outcome([&] { return remove_msgq(old_id); }), failed(EINVAL));
    EXPECT_TRUE(LogCapture::get().take().empty());  // the caller reports, not the wrapper
}

// An information record of one transaction; its status.
int32_t trace_info() {
    return TRAN_INFO_EX(-1, "CL", -1, "D", -1, "GID-REQUEUE", -1, "SVC-REQUEUE", -1, nullptr, 0, nullptr, 0, nullptr, 0,
                        "INFO", -1, "requeued", -1);
}

// Tracing survives its one queue being removed and re-created, as by a restarted collector.
TEST_F(Msgq, TracingTakesUpAQueueTheCollectorRecreates) {
    ScratchQueue queue;
    ASSERT_GE(queue.id, 0);
    struct Restore {  // TRAN_DONE closes the binary's log: reopened
        ~Restore() { stop_tracing(), open_log(nullptr, nullptr, 0), TestIpc::get().reset(); }
    } restore;
    kit::AgentConfig conf = ipc_.default_config();
    conf.keys.msgq = queue.key;
    conf.max_que_cnt = 1;
    ASSERT_TRUE(ipc_.write_config(conf));
    ipc_.que_info().qcnt = 1;
    ipc_.que_info().que_mask = 0;
    testing::internal::CaptureStdout();
    ASSERT_EQ(TRAN_INIT(), 0);
    testing::internal::GetCapturedStdout();

    std::atomic<bool> stop{false};
    std::atomic<int> unexpected{0};  // statuses other than queue 0 and 105
    ThreadGroup tracers(2, [&](int) {
        while (!stop.load()) {
            const int32_t rc = trace_info();
            if (rc != 0 && rc != VARNIX_RC_SEND_FAIL) ++unexpected;
            std::this_thread::sleep_for(std::chrono::microseconds(200));
        }
    });
    struct Stop {  // before the group joins, also on a failed assertion
        std::atomic<bool>& flag;
        ~Stop() { flag = true; }
    } stop_first{stop};

    // Records flow (the queue is drained while the threads send).
    int received = 0;
    for (auto until = Clock::now() + std::chrono::seconds(10); received < 10 && Clock::now() < until;)
        while (next_seq(queue.id, 0) >= 0) ++received;
    ASSERT_GE(received, 10);

    // Removed: refused at once and counted, and the look-ups never create it.
    ASSERT_EQ(remove_msgq(std::exchange(queue.id, -1)), 0);
    const uint32_t failed_before = ipc_.que_info().msgq_fail_cnt[0];
    EXPECT_EQ(trace_info(), VARNIX_RC_SEND_FAIL);
    EXPECT_GT(ipc_.que_info().msgq_fail_cnt[0], failed_before);
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    EXPECT_EQ(outcome([&] { return msgget(queue.key, 0); }), failed(ENOENT));

    // Re-created at the same key: records arrive again within a second.
    ASSERT_GE(queue.id = kit::create_queue(queue.key), 0);
    const auto recreated = Clock::now();
    received = 0;
    while (received == 0 && Clock::now() < recreated + std::chrono::seconds(5)) received += next_seq(queue.id, 0) >= 0;
    EXPECT_GT(received, 0);
    EXPECT_LT(Clock::now() - recreated, std::chrono::seconds(1));
    EXPECT_EQ(unexpected.load(), 0);
}

}  // namespace
}  // namespace varnix
