#include <sys/ipc.h>
#include <sys/msg.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "core/ipc.h"
#include "core/log_printf.h"
#include "support/log_capture.h"
#include "support/outcome.h"
#include "support/test_ipc.h"
#include "support/thread_group.h"
#include "support/tracing.h"

namespace varnix {
namespace {

using test::failed;
using test::LogCapture;
using test::ok;
using test::outcome;
using test::TestIpc;
using Clock = std::chrono::steady_clock;
using Lines = std::vector<std::string>;

// A trace record whose text says which it is.
TRAN_LOG_MSG record(long type, int seq) {
    TRAN_LOG_MSG m{};
    m.mtype = type;
    std::memset(m.text, 'r', sizeof m.text);
    std::memcpy(m.text, &seq, sizeof seq);
    return m;
}

int seq_of(const TRAN_LOG_MSG& m) {
    int seq;
    std::memcpy(&seq, m.text, sizeof seq);
    return seq;
}

msqid_ds status_of(int qid) {
    msqid_ds ds{};
    EXPECT_EQ(msgctl(qid, IPC_STAT, &ds), 0);
    return ds;
}

// Discards the records waiting in a queue; how many there were.
int drain(int qid) {
    TRAN_LOG_MSG m;
    int n = 0;
    while (read_msgq(qid, 0, &m, VARNIX_REC_TEXT, 1) >= 0) ++n;
    return n;
}

// A queue the test creates through the kit and removes itself, also when it
// fails half-way.  It takes the last key of this process's queue block, which
// the test collector (four queues) leaves free.
class ScratchQueue {
public:
    ScratchQueue() : key_(kit::keys_for_pid(getpid()).msgq + VARNIX_MAX_QUE_CNT - 1), id_(kit::create_queue(key_)) {}
    ~ScratchQueue() {
        if (id_ >= 0) remove_msgq(id_);
    }
    ScratchQueue(const ScratchQueue&) = delete;
    ScratchQueue& operator=(const ScratchQueue&) = delete;

    key_t key() const { return key_; }
    int id() const { return id_; }
    // Removes the queue through the wrapper under test.
    int remove() {
        int rc = remove_msgq(id_);
        if (rc == 0) id_ = -1;
        return rc;
    }
    // Creates it again at the same key, as a restarted collector does.
    int recreate() { return id_ = kit::create_queue(key_); }

private:
    key_t key_;
    int id_;
};

class Msgq : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(ipc_.ok());
        ASSERT_TRUE(LogCapture::get().ok());
        ipc_.collector().drain();
        LogCapture::get().take();
    }
    void TearDown() override { ipc_.collector().drain(); }

    int qid(int q) const { return ipc_.collector().msgq_id(q); }

    TestIpc& ipc_ = TestIpc::get();
};

TEST_F(Msgq, CreateAttachesTheCollectorsQueuesOnly) {
    const key_t base = ipc_.default_config().keys.msgq;
    for (int q = 0; q < ipc_.collector().max_que_cnt(); ++q) EXPECT_EQ(create_msgq(base + q), qid(q)) << q;
    key_t absent = base + ipc_.collector().max_que_cnt();
    EXPECT_EQ(outcome([&] { return create_msgq(absent); }), failed(ENOENT));
    EXPECT_EQ(outcome([&] { return create_msgq(absent); }), failed(ENOENT));  // still not created
}

TEST_F(Msgq, SendAndReadCarryRecordsByTypeAndAFullQueueRefusesAtOnce) {
    // Type 2 takes the first of type 2, 0 the first of any.
    for (int type : {3, 2}) {
        TRAN_LOG_MSG m = record(type, type * 10);
        ASSERT_EQ(outcome([&] { return send_msgq(qid(1), &m, VARNIX_REC_TEXT); }), ok(0));
    }
    EXPECT_EQ(get_msgq_num(qid(1)), 2);
    std::vector<std::pair<long, int>> got;
    TRAN_LOG_MSG out{};
    for (long type : {2L, 0L}) {
        ASSERT_EQ(read_msgq(qid(1), type, &out, VARNIX_REC_TEXT, 1), VARNIX_REC_TEXT) << type;
        got.emplace_back(out.mtype, seq_of(out));
    }
    EXPECT_EQ(got, (std::vector<std::pair<long, int>>{{2, 20}, {3, 30}}));
    EXPECT_EQ(outcome([&] { return read_msgq(qid(1), 0, &out, VARNIX_REC_TEXT, 1); }), failed(ENOMSG));

    // A text larger than the buffer stays in the queue.
    TRAN_LOG_MSG small = record(1, 5);
    ASSERT_EQ(send_msgq(qid(1), &small, 100), 0);
    EXPECT_EQ(outcome([&] { return read_msgq(qid(1), 0, &out, 50, 1); }), failed(E2BIG));
    EXPECT_EQ(outcome([&] { return read_msgq(qid(1), 0, &out, VARNIX_REC_TEXT, 1); }), ok(100));

    // The queue holds msg_qbytes bytes of text: 20 records with the usual 16,384.
    int fits = static_cast<int>(status_of(qid(2)).msg_qbytes / VARNIX_REC_TEXT);
    ASSERT_GT(fits, 0);
    for (int seq = 0; seq < fits; ++seq) {
        TRAN_LOG_MSG m = record(1, seq);
        ASSERT_EQ(send_msgq(qid(2), &m, VARNIX_REC_TEXT), 0) << seq;
    }
    TRAN_LOG_MSG extra = record(1, -1);
    EXPECT_EQ(outcome([&] { return send_msgq(qid(2), &extra, VARNIX_REC_TEXT); }), failed(EAGAIN));
    EXPECT_EQ(get_msgq_num(qid(2)), fits);
    EXPECT_EQ(LogCapture::get().take(), Lines{});  // the caller reports, not the wrapper
    for (int seq = 0; seq < fits; ++seq) {
        ASSERT_EQ(read_msgq(qid(2), 0, &out, VARNIX_REC_TEXT, 1), VARNIX_REC_TEXT) << seq;
        EXPECT_EQ(seq_of(out), seq);
    }
    EXPECT_EQ(send_msgq(qid(2), &extra, VARNIX_REC_TEXT), 0);
}

TEST_F(Msgq, ModeCountAndRemovalOnAQueueOfItsOwn) {
    ScratchQueue scratch;
    ASSERT_GE(scratch.id(), 0);
    EXPECT_EQ(status_of(scratch.id()).msg_perm.mode & 0777, 0666u);

    // The text is octal permission bits.
    EXPECT_EQ(outcome([&] { return change_mode_msgq(scratch.id(), "660"); }), ok(0));
    EXPECT_EQ(status_of(scratch.id()).msg_perm.mode & 0777, 0660u);
    EXPECT_EQ(change_mode_msgq(scratch.id(), "7"), 0);
    EXPECT_EQ(status_of(scratch.id()).msg_perm.mode & 0777, 0007u);
    for (const char* bad : {"", "rw-", "9", static_cast<const char*>(nullptr)})
        EXPECT_EQ(outcome([&] { return change_mode_msgq(scratch.id(), bad); }), failed(EINVAL)) << bad;
    EXPECT_EQ(status_of(scratch.id()).msg_perm.mode & 0777, 0007u);

    TRAN_LOG_MSG m = record(1, 0);
    ASSERT_EQ(send_msgq(scratch.id(), &m, VARNIX_REC_TEXT), 0);
    ASSERT_EQ(send_msgq(scratch.id(), &m, 1), 0);
    EXPECT_EQ(get_msgq_num(scratch.id()), 2);

    // A removed queue's id fails every operation with the system's error, quietly.
    int old_id = scratch.id();
    EXPECT_EQ(outcome([&] { return scratch.remove(); }), ok(0));
    EXPECT_EQ(outcome([&] { return create_msgq(scratch.key()); }), failed(ENOENT));
    EXPECT_EQ(outcome([&] { return send_msgq(old_id, &m, VARNIX_REC_TEXT); }), failed(EINVAL));
    EXPECT_EQ(outcome([&] { return read_msgq(old_id, 0, &m, VARNIX_REC_TEXT, 1); }), failed(EINVAL));
    EXPECT_EQ(outcome([&] { return get_msgq_num(old_id); }), failed(EINVAL));
    EXPECT_EQ(outcome([&] { return change_mode_msgq(old_id, "660"); }), failed(EINVAL));
    EXPECT_EQ(outcome([&] { return remove_msgq(old_id); }), failed(EINVAL));
    EXPECT_EQ(LogCapture::get().take(), Lines{});
}

// An information record of one transaction; its status.
int32_t trace_info() {
    return TRAN_INFO_EX(-1, "CL", -1, "D", -1, "GID-REQUEUE", -1, "SVC-REQUEUE", -1, nullptr, 0, nullptr, 0, nullptr, 0,
                        "INFO", -1, "requeued", -1);
}

// Tracing goes to a single queue of the test's own, which the test removes
// and re-creates the way a restarted collector does.
TEST_F(Msgq, TracingTakesUpAQueueTheCollectorRecreates) {
    ScratchQueue queue;
    ASSERT_GE(queue.id(), 0);
    struct Restore {
        ~Restore() {
            test::stop_tracing();
            open_log(nullptr, nullptr, 0);  // the log of this binary, which TRAN_DONE closed
            TestIpc::get().reset();
        }
    } restore;
    kit::AgentConfig conf = ipc_.default_config();
    conf.keys.msgq = queue.key();
    conf.max_que_cnt = 1;
    ASSERT_TRUE(ipc_.write_config(conf));
    ipc_.que_info().qcnt = 1;
    ipc_.que_info().que_mask = 0;
    testing::internal::CaptureStdout();
    ASSERT_EQ(TRAN_INIT(), 0);
    testing::internal::GetCapturedStdout();

    std::atomic<bool> stop{false};
    std::atomic<int> unexpected{0};  // statuses other than queue 0 and 105
    test::ThreadGroup tracers(2, [&](int) {
        while (!stop.load()) {
            const int32_t rc = trace_info();
            if (rc != 0 && rc != VARNIX_RC_SEND_FAIL) ++unexpected;
            std::this_thread::sleep_for(std::chrono::microseconds(200));
        }
    });
    struct Stop {
        std::atomic<bool>& flag;
        ~Stop() { flag = true; }
    } stop_first{stop};  // before the group joins, also on a failed assertion

    // Records flow (the queue is drained while the threads send).
    int received = 0;
    for (auto until = Clock::now() + std::chrono::seconds(10); received < 10 && Clock::now() < until;)
        received += drain(queue.id());
    ASSERT_GE(received, 10);

    // Removed: refused at once and counted, and the look-ups never create it.
    ASSERT_EQ(queue.remove(), 0);
    const uint32_t failed_before = ipc_.que_info().msgq_fail_cnt[0];
    EXPECT_EQ(trace_info(), VARNIX_RC_SEND_FAIL);
    EXPECT_GT(ipc_.que_info().msgq_fail_cnt[0], failed_before);
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    EXPECT_EQ(outcome([&] { return msgget(queue.key(), 0); }), failed(ENOENT));

    // Re-created at the same key: records arrive again within a second.
    ASSERT_GE(queue.recreate(), 0);
    const auto recreated = Clock::now();
    received = 0;
    while (received == 0 && Clock::now() < recreated + std::chrono::seconds(5)) received += drain(queue.id());
    EXPECT_GT(received, 0);
    EXPECT_LT(Clock::now() - recreated, std::chrono::seconds(1));
    EXPECT_EQ(unexpected.load(), 0);
}

}  // namespace
}  // namespace varnix
