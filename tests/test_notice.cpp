// Notices: event, error-information, information and extended-information
// records, and their dispatch to the queues.
#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <latch>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "api/notice.h"
#include "support/tracing.h"

namespace varnix::test {
namespace {

using Entry = int32_t (*)(VARNIX_NOTICE_PARAMS);
using Lines = std::vector<std::string>;

int32_t send(Entry entry, const Notice& n) {
    return entry(-1, n.cls_cd.p, n.cls_cd.len, n.dtl_cd.p, n.dtl_cd.len, n.gid.p, n.gid.len, n.svc_id.p, n.svc_id.len,
                 n.pid_str.p, n.pid_str.len, n.date_str.p, n.date_str.len, n.time_str.p, n.time_str.len, n.code.p,
                 n.code.len, n.recv_svc_cd.p, n.recv_svc_cd.len, n.chnl_class.p, n.chnl_class.len, n.msg_text.p,
                 n.msg_text.len);
}

// The notice points into `gid`, which must outlive it.
Notice with_gid(const std::string& gid) {
    Notice n;
    n.gid = {gid.c_str(), static_cast<int32_t>(gid.size())};
    return n;
}

int32_t info(const char* gid, const char* svc, const char* text) {
    return TRAN_INFO(-1, "IC", -1, "D", -1, gid, -1, svc, -1, nullptr, 0, nullptr, 0, nullptr, 0, text, -1);
}

int32_t info_ex(const char* time, const char* code, const char* text) {
    return TRAN_INFO_EX(-1, nullptr, 0, nullptr, 0, nullptr, 0, nullptr, 0, nullptr, 0, nullptr, 0, time, -1, code, -1,
                        text, -1);
}

class TranNotice : public TracedThread {
protected:
    void TearDown() override {
        if (cxt_) cxt_->service_depth = 0;
        EXPECT_EQ(collector().drain(), 0) << "records nobody looked at";
        TracedThread::TearDown();
    }
    kit::Collector& collector() { return TestIpc::get().collector(); }

    // The state TRAN_START leaves for a service at `depth`.
    void open_level(int depth, const char* gid32, const char* svc16) {
        cxt_->service_depth = depth;
        cxt_->log_bit = 1;
        std::memcpy(cxt_->svc_stack[depth - 1].gid, gid32, 32);
        std::memcpy(cxt_->svc_stack[depth - 1].svc_id, svc16, 16);
    }
};

TEST_F(TranNotice, EventFieldsAreCutPaddedOrBlankAndThePidSticks) {
    const std::string gid(40, 'G'), text(600, 't');
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
    TRAN_LOG_MSG m = received(send(TRAN_EVENT, n));
    EXPECT_EQ(body_len(m), 733u);
    EXPECT_EQ(body_field(m, 0, 733), header_of(m, *cxt_, {'V', "AB", "D", gid, "SVC0001", "12345678",
                                                          "20260102 030405123456 "}) +
                                         "1300 RECV         C    " + std::string(512, 't') + " ");

    // Everything absent: blank fields, the clock's date and time; the pid
    // given before stays in the thread's buffer.
    m = received(send(TRAN_EVENT, Notice{}));
    EXPECT_EQ(body_field(m, 0, 733), header_of(m, *cxt_, {'V', "", "", "", "", "12345678", ""}) +
                                         std::string(536, ' '));
}

TEST_F(TranNotice, QueueFollowsTheGidSliceAndAFullQueueRefusesAtOnce) {
    std::set<int> seen;
    for (int i = 0; seen.size() < 4 && i < 1000; ++i) {
        const std::string gid = "GID-" + std::to_string(i);
        const int q = queue_of_gid(gid);
        if (!seen.insert(q).second) continue;
        EXPECT_EQ(body_field(received(send(TRAN_EVENT, with_gid(gid))), 7, 32), padded(gid, 32));
    }
    EXPECT_EQ(seen.size(), 4u);

    const std::string gid = "FULL";
    const int q = queue_of_gid(gid);
    const uint32_t before = TestIpc::get().que_info().msgq_fail_cnt[q];
    int sent = 0, refused = 0;
    while (refused < 3 && sent < 1000) {
        const int rc = send(TRAN_EVENT, with_gid(gid));
        if (rc == q) ++sent;
        else if (rc == VARNIX_RC_SEND_FAIL) ++refused;
        else FAIL() << "unexpected result " << rc;
    }
    EXPECT_GT(sent, 0);
    EXPECT_EQ(TestIpc::get().que_info().msgq_fail_cnt[q], before + 3);
    EXPECT_EQ(collector().drain(), sent);
}

TEST_F(TranNotice, ErrinfoReportsTheOpenServiceLevel) {
    Notice n = with_gid("IGNORED-GID");
    n.svc_id = {"IGNORED", -1};
    n.code = {"1105", -1};
    n.recv_svc_cd = {"RCV", -1};
    n.chnl_class = {"O", -1};
    const std::string text(400, 'e');
    n.msg_text = {text.c_str(), -1};
    EXPECT_EQ(send(TRAN_ERRINFO, n), VARNIX_RC_SVC_DEPTH);

    open_level(2, "0123456789ABCDEF0123456789ABCDEF", "SERVICE-LEVEL-02");
    TRAN_LOG_MSG m = received(send(TRAN_ERRINFO, n));
    EXPECT_EQ(body_len(m), 571u);
    EXPECT_EQ(body_field(m, 0, 571),
              header_of(m, *cxt_, {'E', "", "", "0123456789ABCDEF0123456789ABCDEF", "SERVICE-LEVEL-02", "", ""}) +
                  "1105 RCV          O    " + std::string(350, 'e') + " ");

    cxt_->log_bit = 3;  // the service has ended
    EXPECT_EQ(send(TRAN_ERRINFO, n), VARNIX_RC_NO_SERVICE);
    cxt_->service_depth = 11;
    EXPECT_EQ(send(TRAN_ERRINFO, n), VARNIX_RC_SVC_DEPTH);
}

TEST_F(TranNotice, InformationTakesTheOpenServiceUnlessGiven) {
    LogTail log;
    EXPECT_EQ(info("GID-WITHOUT-SERVICE-0123456789-ABC", nullptr, "text"), VARNIX_RC_SVC_DEPTH);
    EXPECT_EQ(log.take(), Lines{fmt("<!> INFO service_depth error!(val:0 (MAX:10)), GID-PID-TID "
                                    "|GID-WITHOUT-SERVICE-0123456789|-|%d|-|%d|",
                                    getpid(), static_cast<int>(pthread_self()))});
    TRAN_LOG_MSG m = received(info(nullptr, "SVC-X", std::string(351, 'i').c_str()));
    EXPECT_EQ(body_len(m), 548u);
    EXPECT_EQ(body_field(m, 0, 548),
              header_of(m, *cxt_, {'I', "IC", "D", "", "SVC-X", "", ""}) + std::string(350, 'i') + " ");
    // Extended information has a code and no service fallback.
    m = received(info_ex("123456789012", nullptr, "no code"));
    EXPECT_EQ(body_len(m), 553u);
    const std::string date_time = std::string(body_field(m, 175, 9)) + "123456789012 ";
    EXPECT_EQ(body_field(m, 0, 553),
              header_of(m, *cxt_, {'X', "", "", "", "", "", date_time}) + "     " + padded("no code", 350) + " ");

    open_level(1, "0123456789ABCDEF0123456789ABCDEF", "OPEN-SERVICE-016");
    m = received(info(nullptr, nullptr, "library notice"));
    EXPECT_EQ(body_field(m, 7, 66), "0123456789ABCDEF0123456789ABCDEF " + padded(gvar.proc_nm, 15) +
                                        " OPEN-SERVICE-016 ");
    EXPECT_EQ(body_field(m, 197, 15), "library notice ");
    m = received(info("OWN-GID", "OWN-SVC", "x"));
    EXPECT_EQ(body_field(m, 7, 66), padded("OWN-GID", 32) + " " + padded(gvar.proc_nm, 15) + " " +
                                        padded("OWN-SVC", 16) + " ");
    m = received(info_ex(nullptr, "CD01", "with code"));
    EXPECT_EQ(body_field(m, 7, 66), "0123456789ABCDEF0123456789ABCDEF " + padded(gvar.proc_nm, 15) + " " +
                                        std::string(17, ' '));  // the service id stays the caller's
    EXPECT_EQ(body_field(m, 197, 5), "CD01 ");

    // Classes switched off send nothing.
    TestIpc::get().que_info().log_flag_set = get_log_flag_set("SEVBCIQ");
    EXPECT_EQ(info_ex(nullptr, "CD01", "off"), VARNIX_RC_CLASS_OFF);
    TestIpc::get().que_info().log_flag_set = get_log_flag_set("SEBCIXQ");
    EXPECT_EQ(send(TRAN_EVENT, Notice{}), VARNIX_RC_CLASS_OFF);
}

// Eight threads send while the test drains: every record arrives once, and
// one thread's records (one GID, hence one queue) in their order.  No thread
// ends before all have sent: the slot of a thread that has ended is
// reclaimed by the next newcomer of its bucket, which is safe (the kernel has
// seen the thread go) but an ordering the race detector cannot see.
TEST_F(TranNotice, ConcurrentThreadsEachRecordArrivesOnce) {
    constexpr int kThreads = 8, kEach = 200;
    std::atomic<int> failures{0};
    std::latch done(kThreads);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([&, t] {
            const std::string gid = "T" + std::to_string(t);
            for (int i = 0; i < kEach; ++i) {
                const std::string text = std::to_string(t) + ":" + std::to_string(i);
                Notice n = with_gid(gid);
                n.msg_text = {text.c_str(), -1};
                int rc;
                while ((rc = send(TRAN_EVENT, n)) == VARNIX_RC_SEND_FAIL) std::this_thread::yield();
                if (rc < 0 || rc > 3) failures.fetch_add(1);
            }
            done.arrive_and_wait();
        });
    std::set<std::string> texts;
    std::vector<int> last(kThreads, -1);
    int received_count = 0, out_of_order = 0;
    TRAN_LOG_MSG m{};
    while (received_count < kThreads * kEach && collector().receive_wait(m, 5000) >= 0) {
        ++received_count;
        const std::string text(body_field(m, 220, 512).substr(0, body_field(m, 220, 512).find(' ')));
        texts.insert(text);
        const int t = std::stoi(text), i = std::stoi(text.substr(text.find(':') + 1));
        if (i <= last[t]) ++out_of_order;
        last[t] = i;
    }
    for (std::thread& th : threads) th.join();
    EXPECT_EQ(failures.load(), 0);
    EXPECT_EQ(received_count, kThreads * kEach);
    EXPECT_EQ(texts.size(), static_cast<size_t>(kThreads * kEach));
    EXPECT_EQ(out_of_order, 0);
}

}  // namespace
}  // namespace varnix::test
