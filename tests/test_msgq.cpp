#include <sys/ipc.h>
#include <sys/msg.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "core/ipc.h"
#include "support/log_capture.h"
#include "support/outcome.h"
#include "support/test_ipc.h"

namespace varnix {
namespace {

using test::failed;
using test::LogCapture;
using test::ok;
using test::Outcome;
using test::outcome;
using test::TestIpc;
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
    kit::Keys keys() const { return ipc_.default_config().keys; }

    TestIpc& ipc_ = TestIpc::get();
};

TEST_F(Msgq, CreateAttachesTheCollectorsQueuesOnly) {
    for (int q = 0; q < ipc_.collector().max_que_cnt(); ++q) EXPECT_EQ(create_msgq(keys().msgq + q), qid(q)) << q;
    key_t absent = keys().msgq + ipc_.collector().max_que_cnt();
    EXPECT_EQ(outcome([&] { return create_msgq(absent); }), failed(ENOENT));
    EXPECT_EQ(outcome([&] { return create_msgq(absent); }), failed(ENOENT));  // still not created
}

TEST_F(Msgq, SendAndReadCarryRecordsByType) {
    TRAN_LOG_MSG in = record(1, 11);
    EXPECT_EQ(outcome([&] { return send_msgq(qid(0), &in, VARNIX_REC_TEXT); }), ok(0));
    EXPECT_EQ(get_msgq_num(qid(0)), 1);
    TRAN_LOG_MSG out{};
    EXPECT_EQ(outcome([&] { return read_msgq(qid(0), 0, &out, VARNIX_REC_TEXT, 1); }), ok(VARNIX_REC_TEXT));
    EXPECT_EQ(std::memcmp(&out, &in, sizeof in), 0);
    EXPECT_EQ(get_msgq_num(qid(0)), 0);
    EXPECT_EQ(outcome([&] { return read_msgq(qid(0), 0, &out, VARNIX_REC_TEXT, 1); }), failed(ENOMSG));

    // Type 2 takes the first of type 2, -2 the lowest type up to 2, 0 the first.
    for (int type : {3, 1, 2, 1}) {
        TRAN_LOG_MSG m = record(type, type * 10);
        ASSERT_EQ(send_msgq(qid(1), &m, VARNIX_REC_TEXT), 0);
    }
    EXPECT_EQ(get_msgq_num(qid(1)), 4);
    std::vector<std::pair<long, int>> got;
    for (long type : {2L, -2L, 0L, 0L}) {
        out = {};
        ASSERT_EQ(read_msgq(qid(1), type, &out, VARNIX_REC_TEXT, 1), VARNIX_REC_TEXT) << type;
        got.emplace_back(out.mtype, seq_of(out));
    }
    EXPECT_EQ(got, (std::vector<std::pair<long, int>>{{2, 20}, {1, 10}, {3, 30}, {1, 10}}));

    // A text larger than the buffer stays in the queue.
    TRAN_LOG_MSG small = record(1, 5);
    ASSERT_EQ(send_msgq(qid(1), &small, 100), 0);
    EXPECT_EQ(outcome([&] { return read_msgq(qid(1), 0, &out, 50, 1); }), failed(E2BIG));
    EXPECT_EQ(get_msgq_num(qid(1)), 1);
    EXPECT_EQ(outcome([&] { return read_msgq(qid(1), 0, &out, VARNIX_REC_TEXT, 1); }), ok(100));
}

TEST_F(Msgq, SendOnAFullQueueFailsAtOnceAndQuietly) {
    // The queue holds msg_qbytes bytes of text: 20 records with the usual 16,384.
    int fits = static_cast<int>(status_of(qid(2)).msg_qbytes / VARNIX_REC_TEXT);
    ASSERT_GT(fits, 0);
    for (int seq = 0; seq < fits; ++seq) {
        TRAN_LOG_MSG m = record(1, seq);
        ASSERT_EQ(outcome([&] { return send_msgq(qid(2), &m, VARNIX_REC_TEXT); }), ok(0)) << seq;
    }
    TRAN_LOG_MSG extra = record(1, -1);
    EXPECT_EQ(outcome([&] { return send_msgq(qid(2), &extra, VARNIX_REC_TEXT); }), failed(EAGAIN));
    EXPECT_EQ(outcome([&] { return send_msgq(qid(2), &extra, VARNIX_REC_TEXT); }), failed(EAGAIN));
    EXPECT_EQ(get_msgq_num(qid(2)), fits);
    EXPECT_EQ(status_of(qid(2)).msg_cbytes, static_cast<unsigned long>(fits) * VARNIX_REC_TEXT);
    EXPECT_EQ(LogCapture::get().take(), Lines{});  // the caller reports, not the wrapper

    for (int seq = 0; seq < fits; ++seq) {
        TRAN_LOG_MSG out{};
        ASSERT_EQ(read_msgq(qid(2), 0, &out, VARNIX_REC_TEXT, 1), VARNIX_REC_TEXT) << seq;
        EXPECT_EQ(seq_of(out), seq);
    }
    EXPECT_EQ(get_msgq_num(qid(2)), 0);
    EXPECT_EQ(send_msgq(qid(2), &extra, VARNIX_REC_TEXT), 0);
}

TEST_F(Msgq, InvalidIdsFailWithTheSystemsError) {
    TRAN_LOG_MSG m = record(1, 0);
    EXPECT_EQ(outcome([&] { return send_msgq(-1, &m, VARNIX_REC_TEXT); }), failed(EINVAL));
    EXPECT_EQ(outcome([&] { return read_msgq(-1, 0, &m, VARNIX_REC_TEXT, 1); }), failed(EINVAL));
    EXPECT_EQ(outcome([&] { return read_msgq(-1, 0, &m, VARNIX_REC_TEXT, 0); }), failed(EINVAL));
    EXPECT_EQ(outcome([&] { return get_msgq_num(-1); }), failed(EINVAL));
    EXPECT_EQ(outcome([&] { return change_mode_msgq(-1, "660"); }), failed(EINVAL));
    EXPECT_EQ(outcome([&] { return remove_msgq(-1); }), failed(EINVAL));
    EXPECT_EQ(LogCapture::get().take(), Lines{});
}

TEST_F(Msgq, ModeCountAndRemovalOnAQueueOfItsOwn) {
    ScratchQueue scratch;
    ASSERT_GE(scratch.id(), 0);
    EXPECT_EQ(create_msgq(scratch.key()), scratch.id());
    EXPECT_EQ(status_of(scratch.id()).msg_perm.mode & 0777, 0666u);

    // The text is octal permission bits.
    EXPECT_EQ(outcome([&] { return change_mode_msgq(scratch.id(), "660"); }), ok(0));
    EXPECT_EQ(status_of(scratch.id()).msg_perm.mode & 0777, 0660u);
    EXPECT_EQ(change_mode_msgq(scratch.id(), "0640"), 0);
    EXPECT_EQ(status_of(scratch.id()).msg_perm.mode & 0777, 0640u);
    EXPECT_EQ(change_mode_msgq(scratch.id(), "7"), 0);
    EXPECT_EQ(status_of(scratch.id()).msg_perm.mode & 0777, 0007u);
    for (const char* bad : {"", "rw-", "9"})
        EXPECT_EQ(outcome([&] { return change_mode_msgq(scratch.id(), bad); }), failed(EINVAL)) << bad;
    EXPECT_EQ(outcome([&] { return change_mode_msgq(scratch.id(), nullptr); }), failed(EINVAL));
    EXPECT_EQ(status_of(scratch.id()).msg_perm.mode & 0777, 0007u);

    EXPECT_EQ(get_msgq_num(scratch.id()), 0);
    TRAN_LOG_MSG m = record(1, 0);
    ASSERT_EQ(send_msgq(scratch.id(), &m, VARNIX_REC_TEXT), 0);
    ASSERT_EQ(send_msgq(scratch.id(), &m, 1), 0);
    EXPECT_EQ(get_msgq_num(scratch.id()), 2);

    int old_id = scratch.id();
    EXPECT_EQ(outcome([&] { return scratch.remove(); }), ok(0));
    EXPECT_EQ(outcome([&] { return create_msgq(scratch.key()); }), failed(ENOENT));
    EXPECT_EQ(outcome([&] { return get_msgq_num(old_id); }), failed(EINVAL));
    EXPECT_EQ(outcome([&] { return remove_msgq(old_id); }), failed(EINVAL));
}

}  // namespace
}  // namespace varnix
