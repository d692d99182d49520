// Event and error-information records, and their dispatch to the queues.
#include <gtest/gtest.h>
#include <pthread.h>

#include <algorithm>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "api/notice.h"
#include "core/gvar.h"
#include "support/thread_group.h"
#include "support/tracing.h"

namespace varnix::test {
namespace {

using Entry = int32_t (*)(VARNIX_NOTICE_PARAMS);

int32_t send(Entry entry, int32_t tid, const Notice& n) {
    return entry(tid, n.cls_cd.p, n.cls_cd.len, n.dtl_cd.p, n.dtl_cd.len, n.gid.p, n.gid.len, n.svc_id.p, n.svc_id.len,
                 n.pid_str.p, n.pid_str.len, n.date_str.p, n.date_str.len, n.time_str.p, n.time_str.len, n.code.p,
                 n.code.len, n.recv_svc_cd.p, n.recv_svc_cd.len, n.chnl_class.p, n.chnl_class.len, n.msg_text.p,
                 n.msg_text.len);
}

// The notice points into `gid`, which must outlive it.
Notice event_with_gid(const std::string& gid) {
    Notice n;
    n.gid = {gid.c_str(), static_cast<int32_t>(gid.size())};
    return n;
}

class TranEvent : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(start_tracing(), 0); }
    void TearDown() override {
        stop_tracing();
        TestIpc::get().collector().drain();
    }
    kit::Collector& collector() { return TestIpc::get().collector(); }

    // The record that `rc`, the result of an entry, says it sent.
    TRAN_LOG_MSG received(int rc) {
        TRAN_LOG_MSG m{};
        EXPECT_GE(rc, 0);
        EXPECT_LT(rc, 4);
        EXPECT_EQ(collector().receive(m, rc), rc);
        return m;
    }
};

TEST_F(TranEvent, FieldsAreCutPaddedOrBlankAndPidSticks) {
    const std::string gid(40, 'G');
    const std::string text(600, 't');
    Notice n;
    n.cls_cd = {"ABC", -1};
    n.dtl_cd = {"DX", 1};
    n.gid = {gid.c_str(), -1};
    n.svc_id = {"SVC0001", -1};
    n.pid_str = {"12345678", -1};
    n.date_str = {"20260102", -1};
    n.time_str = {"030405123456", -1};
    n.code = {"1300", -1};
    n.recv_svc_cd = {"RECV", -1};
    n.chnl_class = {"C", -1};
    n.msg_text = {text.c_str(), -1};
    TRAN_LOG_MSG m = received(send(TRAN_EVENT, -1, n));
    EXPECT_EQ(body_len(m), 733u);
    EXPECT_EQ(body_field(m, 0, 7), "V AB D ");
    EXPECT_EQ(body_field(m, 7, 33), std::string(32, 'G') + " ");
    EXPECT_EQ(body_field(m, 56, 17), padded("SVC0001", 16) + " ");
    EXPECT_EQ(body_field(m, 138, 9), "12345678 ");
    EXPECT_EQ(body_field(m, 175, 22), "20260102 030405123456 ");
    EXPECT_EQ(body_field(m, 197, 23), "1300 RECV         C    ");
    EXPECT_EQ(body_field(m, 220, 513), std::string(512, 't') + " ");

    // Everything absent: blank fields, the clock's date and time; the pid
    // given before stays in the thread's buffer.
    m = received(send(TRAN_EVENT, -1, Notice{}));
    EXPECT_EQ(body_field(m, 0, 7), "V      ");
    EXPECT_EQ(body_field(m, 7, 33), std::string(33, ' '));
    EXPECT_EQ(body_field(m, 138, 9), "12345678 ");
    EXPECT_EQ(body_field(m, 175, 9).find_first_not_of("0123456789"), 8u);
    EXPECT_EQ(body_field(m, 184, 13).find_first_not_of("0123456789"), 12u);
    EXPECT_EQ(body_field(m, 197, 536), std::string(536, ' '));
}

TEST_F(TranEvent, QueueFollowsTheGidSlice) {
    // Find GIDs that hash to each queue; the result is the queue number.
    std::set<int> seen;
    for (int i = 0; seen.size() < 4 && i < 1000; ++i) {
        std::string gid = "GID-" + std::to_string(i);
        int q = queue_of_gid(gid);
        if (!seen.insert(q).second) continue;
        EXPECT_EQ(send(TRAN_EVENT, -1, event_with_gid(gid)), q);
        EXPECT_EQ(send(TRAN_EVENT, -1, event_with_gid(gid)), q);
        TRAN_LOG_MSG m{};
        EXPECT_EQ(collector().receive(m, q), q);
        EXPECT_EQ(collector().receive(m, q), q);
        EXPECT_EQ(body_field(m, 7, 32), padded(gid, 32));
    }
    EXPECT_EQ(seen.size(), 4u);
}

TEST_F(TranEvent, FullQueueRefusesAtOnceAndCounts) {
    const std::string gid = "FULL";
    const int q = queue_of_gid(gid);
    const uint32_t before = TestIpc::get().que_info().msgq_fail_cnt[q];
    int sent = 0, refused = 0;
    while (refused < 3 && sent < 1000) {
        int rc = send(TRAN_EVENT, -1, event_with_gid(gid));
        if (rc == q) ++sent;
        else if (rc == VARNIX_RC_SEND_FAIL) ++refused;
        else FAIL() << "unexpected result " << rc;
    }
    EXPECT_EQ(refused, 3);
    EXPECT_GT(sent, 0);
    EXPECT_EQ(TestIpc::get().que_info().msgq_fail_cnt[q], before + 3);
    EXPECT_EQ(collector().drain(), sent);
}

TEST_F(TranEvent, SwitchedOffClassesAreNotSent) {
    TestIpc::get().que_info().log_flag_set = get_log_flag_set("SEBCIXQ");
    EXPECT_EQ(send(TRAN_EVENT, -1, Notice{}), VARNIX_RC_CLASS_OFF);
    EXPECT_EQ(collector().drain(), 0);
}

TEST_F(TranEvent, ErrinfoReportsTheOpenServiceLevel) {
    Notice n = event_with_gid("IGNORED-GID");
    n.svc_id = {"IGNORED", -1};
    n.code = {"1105", -1};
    n.recv_svc_cd = {"RCV", -1};
    n.chnl_class = {"O", -1};
    const std::string text(400, 'e');
    n.msg_text = {text.c_str(), -1};
    EXPECT_EQ(send(TRAN_ERRINFO, -1, n), VARNIX_RC_SVC_DEPTH);

    MTR_CXT_VAR* cxt = nullptr;
    ASSERT_EQ(get_mtr_cxt_var(-1, &cxt), 0);
    cxt->service_depth = 2;
    cxt->log_bit = 1;
    SvcLevel& level = cxt->svc_stack[1];
    std::memcpy(level.gid, "0123456789ABCDEF0123456789ABCDEF", 32);
    std::memcpy(level.svc_id, "SERVICE-LEVEL-02", 16);
    TRAN_LOG_MSG m = received(send(TRAN_ERRINFO, -1, n));
    EXPECT_EQ(body_len(m), 571u);
    EXPECT_EQ(body_field(m, 0, 1), "E");
    EXPECT_EQ(body_field(m, 7, 33), "0123456789ABCDEF0123456789ABCDEF ");
    EXPECT_EQ(body_field(m, 56, 17), "SERVICE-LEVEL-02 ");
    EXPECT_EQ(body_field(m, 197, 23), "1105 RCV          O    ");
    EXPECT_EQ(body_field(m, 220, 351), std::string(350, 'e') + " ");

    cxt->log_bit = 3;  // the service has ended
    EXPECT_EQ(send(TRAN_ERRINFO, -1, n), VARNIX_RC_NO_SERVICE);
    cxt->service_depth = 11;
    EXPECT_EQ(send(TRAN_ERRINFO, -1, n), VARNIX_RC_SVC_DEPTH);
    cxt->service_depth = 0;
    EXPECT_EQ(collector().drain(), 0);
}

// Eight threads send while the test drains: every record arrives once.
TEST_F(TranEvent, ConcurrentThreadsEachRecordArrivesOnce) {
    constexpr int kThreads = 8, kEach = 200;
    std::atomic<int> failures{0};
    ThreadGroup threads(kThreads, [&failures](int t) {
        for (int i = 0; i < kEach; ++i) {
            std::string text = std::to_string(t) + ":" + std::to_string(i);
            const std::string gid = "T" + std::to_string(t);
            Notice n = event_with_gid(gid);
            n.msg_text = {text.c_str(), -1};
            int rc;
            while ((rc = send(TRAN_EVENT, -1, n)) == VARNIX_RC_SEND_FAIL) std::this_thread::yield();
            if (rc < 0 || rc > 3) failures.fetch_add(1);
        }
    });
    // One thread's records share a GID, hence a queue, and keep their order.
    std::set<std::string> texts;
    std::vector<int> last(kThreads, -1);
    int received_count = 0, out_of_order = 0;
    TRAN_LOG_MSG m{};
    while (received_count < kThreads * kEach && collector().receive_wait(m, 5000) >= 0) {
        ++received_count;
        std::string text(body_field(m, 220, 512).substr(0, body_field(m, 220, 512).find(' ')));
        texts.insert(text);
        int t = std::stoi(text), i = std::stoi(text.substr(text.find(':') + 1));
        if (i <= last[t]) ++out_of_order;
        last[t] = i;
    }
    threads.join();
    EXPECT_EQ(failures.load(), 0);
    EXPECT_EQ(received_count, kThreads * kEach);
    EXPECT_EQ(texts.size(), static_cast<size_t>(kThreads * kEach));
    EXPECT_EQ(out_of_order, 0);
    EXPECT_EQ(collector().drain(), 0);
}

}  // namespace
}  // namespace varnix::test
