// Notices: event, error-information, information and extended-information records, and their queues.
#include <gtest/gtest.h>

#include <atomic>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "api/notice.h"
#include "support/thread_group.h"
#include "support/tracing.h"

namespace varnix::test {
namespace {

using Entry = int32_t (*)(VARNIX_NOTICE_PARAMS);

int32_t send(Entry entry, const Notice& n) {
    return entry(-1, n.cls_cd.p, n.cls_cd.len, n.dtl_cd.p, n.dtl_cd.len, n.gid.p, n.gid.len, n.svc_id.p, n.svc_id.len,
                 n.pid_str.p, n.pid_str.len, n.date_str.p, n.date_str.len, n.time_str.p, n.time_str.len, n.code.p,
                 n.code.len, n.recv_svc_cd.p, n.recv_svc_cd.len, n.chnl_class.p, n.chnl_class.len, n.msg_text.p,
                 n.msg_text.len);
}

// A notice with only a GID (and a text); it points into `gid`, which must outlive it.
Notice with_gid(const std::string& gid, const char* text = nullptr) {
    Notice n;
    n.gid = {gid.c_str(), static_cast<int32_t>(gid.size())};
    n.msg_text = {text};
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
        EXPECT_EQ(TestIpc::get().collector().drain(), 0) << "records nobody looked at";
        TracedThread::TearDown();
    }
};

TEST_F(TranNotice, EventFieldsAreCutPaddedOrBlankThePidSticksAndTheGidPicksTheQueue) {
    const std::string gid(40, 'G'), text(600, 't');
    const Notice n{{"ABC"},        {"DX", 1}, {gid.c_str()}, {"SVC0001"}, {"12345678"}, {"20260102"},
                   {"030405123456"}, {"1300"},  {"RECV"},      {"C"},       {text.c_str()}};
    TRAN_LOG_MSG m = received(send(TRAN_EVENT, n));
    EXPECT_EQ(body_of(m), header_of(m, *cxt_, {'V', "AB", "D", gid, "SVC0001", "12345678", "20260102 030405123456 "}) +
                              "1300 RECV         C    " + std::string(512, 't') + " ");
    // Everything absent: blank fields, the clock's date and time; the pid given before stays in the thread's buffer.
    m = received(send(TRAN_EVENT, Notice{}));
    EXPECT_EQ(body_of(m), header_of(m, *cxt_, {'V', "", "", "", "", "12345678", ""}) + std::string(536, ' '));

    // Each of the four queues gets the GIDs that pick it.
    std::set<int> seen;
    for (int i = 0; seen.size() < 4 && i < 1000; ++i) {
        const std::string gid = "GID-" + std::to_string(i);
        if (!seen.insert(queue_of_gid(gid)).second) continue;
        EXPECT_EQ(body_field(received(send(TRAN_EVENT, with_gid(gid))), 7, 32), padded(gid, 32));
    }
    EXPECT_EQ(seen.size(), 4u);
}

TEST_F(TranNotice, ErrinfoAndInformationTakeTheOpenService) {
    const std::string text(400, 'e');  // the GID and service given are not the record's
    const Notice n{{}, {}, {"IGNORED-GID"}, {"IGNORED"}, {}, {}, {}, {"1105"}, {"RCV"}, {"O"}, {text.c_str()}};
    LogTail log;
    EXPECT_EQ(send(TRAN_ERRINFO, n), VARNIX_RC_SVC_DEPTH);
    EXPECT_EQ(info("GID-WITHOUT-SERVICE-0123456789-ABC", nullptr, "text"), VARNIX_RC_SVC_DEPTH);
    EXPECT_EQ(log.take().size(), 1u);  // the service depth error, of the information only
    // Information with a service id needs no open service; extended information has a code, no service fallback.
    TRAN_LOG_MSG m = received(info(nullptr, "SVC-X", std::string(351, 'i').c_str()));
    EXPECT_EQ(body_of(m), header_of(m, *cxt_, {'I', "IC", "D", "", "SVC-X", "", ""}) + std::string(350, 'i') + " ");
    m = received(info_ex("123456789012", nullptr, "no code"));
    const std::string date_time = std::string(body_field(m, 175, 9)) + "123456789012 ";
    EXPECT_EQ(body_of(m),
              header_of(m, *cxt_, {'X', "", "", "", "", "", date_time}) + "     " + padded("no code", 350) + " ");

    // A service open at depth 2.
    const char* const kLevelGid = "0123456789ABCDEF0123456789ABCDEF";
    cxt_->service_depth = 2, cxt_->log_bit = 1;
    std::memcpy(cxt_->svc_stack[1].gid, kLevelGid, 32);
    std::memcpy(cxt_->svc_stack[1].svc_id, "SERVICE-LEVEL-02", 16);
    m = received(send(TRAN_ERRINFO, n));
    EXPECT_EQ(body_of(m), header_of(m, *cxt_, {'E', "", "", kLevelGid, "SERVICE-LEVEL-02", "", ""}) +
                              "1105 RCV          O    " + std::string(350, 'e') + " ");
    const std::string open = std::string(kLevelGid) + " " + padded(gvar.proc_nm, 15) + " ";
    EXPECT_EQ(body_field(received(info(nullptr, nullptr, "x")), 7, 66), open + "SERVICE-LEVEL-02 ");
    EXPECT_EQ(body_field(received(info("OWN-GID", "OWN-SVC", "x")), 7, 66),
              padded("OWN-GID", 32) + " " + padded(gvar.proc_nm, 15) + " " + padded("OWN-SVC", 16) + " ");
    m = received(info_ex(nullptr, "CD01", "with code"));
    EXPECT_EQ(body_field(m, 7, 66), open + std::string(17, ' '));  // the service id stays the caller's
    EXPECT_EQ(body_field(m, 197, 5), "CD01 ");

    // Classes switched off send nothing; neither does an ended service.
    TestIpc::get().que_info().log_flag_set = get_log_flag_set("SEBCIQ");
    EXPECT_EQ(info_ex(nullptr, "CD01", "off"), VARNIX_RC_CLASS_OFF);
    EXPECT_EQ(send(TRAN_EVENT, Notice{}), VARNIX_RC_CLASS_OFF);
    cxt_->log_bit = 3;
    EXPECT_EQ(send(TRAN_ERRINFO, n), VARNIX_RC_NO_SERVICE);
    cxt_->service_depth = 11;
    EXPECT_EQ(send(TRAN_ERRINFO, n), VARNIX_RC_SVC_DEPTH);
}

// Eight threads send while the test drains: every record arrives once, one thread's (one queue) in their order.
TEST_F(TranNotice, ConcurrentThreadsEachRecordArrivesOnce) {
    constexpr int kThreads = 8, kEach = 200;
    std::atomic<int> failures{0};
    ThreadGroup senders(kThreads, [&](int t) {
        for (int i = 0; i < kEach; ++i) {
            const std::string gid = "T" + std::to_string(t), text = std::to_string(t) + ":" + std::to_string(i);
            int rc;
            while ((rc = send(TRAN_EVENT, with_gid(gid, text.c_str()))) == VARNIX_RC_SEND_FAIL)
                std::this_thread::yield();
            failures += rc < 0 || rc > 3;
        }
    });
    std::set<std::string> texts;
    std::vector<int> last(kThreads, -1);
    int out_of_order = 0;  // duplicates too
    TRAN_LOG_MSG m{};
    while (texts.size() < size_t{kThreads * kEach} && TestIpc::get().collector().receive_wait(m, 5000) >= 0) {
        const std::string text(body_field(m, 220, 512).substr(0, body_field(m, 220, 512).find(' ')));
        const int t = std::stoi(text), i = std::stoi(text.substr(text.find(':') + 1));
        out_of_order += !texts.insert(text).second || i <= last[t];
        last[t] = i;
    }
    senders.join();
    EXPECT_EQ(fmt("%d %zu %d", failures.load(), texts.size(), out_of_order), fmt("0 %d 0", kThreads * kEach));
}

}  // namespace
}  // namespace varnix::test
