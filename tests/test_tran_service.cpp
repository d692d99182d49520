// Service start, end and error, standard and process tracing: the records
// the collector receives, in order, and the state left on the thread.
#include <gtest/gtest.h>
#include <pthread.h>

#include <cstring>
#include <ctime>

#include "record/record.h"
#include "support/service_calls.h"
#include "support/tracing.h"

namespace varnix::test {
namespace {

using Lines = std::vector<std::string>;

const std::string kGid = "20261123-GID-0000000000000000001";  // 32 characters
const std::string kGid2 = "20261124-GID-0000000000000000002";

// The header's date and time fields for a time, in local time.
std::string date_time_field(const timeval& tv) {
    std::tm tm{};
    localtime_r(&tv.tv_sec, &tm);
    return fmt("%04d%02d%02d %02d%02d%02d%06ld ", tm.tm_year + 1900, tm.tm_mon + 1, tm.tm_mday, tm.tm_hour, tm.tm_min,
               tm.tm_sec, static_cast<long>(tv.tv_usec));
}

// "|pid|-|tid|" as the diagnostic lines print them.
std::string pid_tid() { return fmt("|%d|-|%d|", getpid(), static_cast<int>(pthread_self())); }

class TranService : public TracedThread {
protected:
    void SetUp() override {
        TracedThread::SetUp();
        // One queue for everything, so the records arrive in the order sent.
        TestIpc::get().que_info().que_mask = 0;
    }
    void TearDown() override {
        EXPECT_EQ(TestIpc::get().collector().drain(), 0) << "records nobody looked at";
        TracedThread::TearDown();
    }

    ServiceCall svc(const std::string& gid = kGid, const std::string& id = "SVC-MAIN") {
        ServiceCall s;
        s.gid = gid;
        s.svc_id = id;
        return s;
    }
    TRAN_LOG_MSG next() { return received(0); }
    std::string types() {  // the types of every waiting record, in order
        std::string t;
        TRAN_LOG_MSG m{};
        while (TestIpc::get().collector().receive(m, 0) == 0) t += m.text[4];
        return t;
    }
    // The depth field of the next record.
    std::string_view next_depth() {
        depth_rec_ = next();
        return body_field(depth_rec_, 219, 2);
    }
    TRAN_LOG_MSG depth_rec_{};
};

TEST_F(TranService, OutermostStartEndAndCallStatistics) {
    ServiceCall s = svc();
    const char* cols[22] = {"Y", "KB0001", "ICT", "RECV-SVC-0001", "SCREEN-01", "EMP0001", "0", "ERR000001",
                            "00001024", "fe80::1", "FST", "TRM", "Q", "S", "RSLT-RECV-01", "EAI-INTERFACE-01",
                            "DSB", "OTSD", "OBZ", "first medium", "1", "2"};
    std::copy(std::begin(cols), std::end(cols), s.tail.begin());
    s.pid_str = "00004242";
    EXPECT_EQ(call(TRAN_START, s), 0);
    TRAN_LOG_MSG m = next();
    EXPECT_EQ(body_len(m), 426u);
    EXPECT_EQ(body_field(m, 0, 426),
              header_of(m, *cxt_, {'1', "CL", "D", kGid, "SVC-MAIN", "00004242", date_time_field(e_->svc_start_tv)}) +
                  "0000000000 0000000000 01 Y KB0001 ICT RECV-SVC-000 SCREEN-01 EMP0001 0 ERR000001 00001024 " +
                  padded("fe80::1", 39) + " FST TRM Q S RSLT-RECV-01 EAI-INTERFACE-01 DSB OTSD OBZ " +
                  padded("first medium", 39) + " 1 2 ");
    EXPECT_EQ(cxt_->service_depth, 1);
    EXPECT_EQ(e_->service_depth, 1);
    EXPECT_EQ(cxt_->log_bit, 1);
    EXPECT_EQ(e_->svc_state, 'f');
    EXPECT_EQ(e_->chnl_class, 'C');
    EXPECT_EQ(std::string_view(e_->main_recv_svc_cd, 12), "RECV-SVC-000");

    // Calls were made: the outermost end reports their statistics first.
    e_->call_elapsed_sum = 1234;
    e_->total_call_cnt = 5;
    CallStat& st = cxt_->call_stat;
    st.max_call_depth = 3;
    st.biz_cnt = 3, st.biz_elapsed_sum = 4500, st.biz_max_ms = 2, st.biz_self_max_ms = 1;
    st.dbio_cnt = 2, st.dbio_elapsed_sum = 3000, st.dbio_max_ms = 2;
    e_->fetch_rows_sum = 42;
    e_->fetch_time_sum = 12345;
    std::memcpy(e_->db_user, "SCOTT\0", 6);
    std::memcpy(e_->db_sid, "ORCL\0", 5);
    EXPECT_EQ(call(TRAN_END, svc(kGid, "OTHER-ARG")), 0);  // the records take the started service
    m = next();
    EXPECT_EQ(body_field(m, 0, 1), "I");
    EXPECT_EQ(body_field(m, 56, 16), padded("SVC-MAIN", 16));
    EXPECT_EQ(body_field(m, 197, 350),
              padded("처리 모듈(함수)통계 [ 총 호출 5 건 ] [ Max Depth 3 ] [ BIZCALL(Method) 3건 (전체 Avg/Max   "
                     "1.50/2 ms, 개별 Max 1 ms) ], [ DBIO 2건 (Avg/Max   1.50/2 ms) fetch 42 rows (12.345 ms), (DBConn "
                     "SCOTT/ORCL) ]",
                     350));
    m = next();
    const long elapsed = (e_->svc_end_tv.tv_sec - e_->svc_start_tv.tv_sec) * 1000000L +
                         (e_->svc_end_tv.tv_usec - e_->svc_start_tv.tv_usec);
    // A pid given once stays in the thread's record; columns not given are blank.
    EXPECT_EQ(body_field(m, 0, 226),
              header_of(m, *cxt_, {'2', "CL", "D", kGid, "SVC-MAIN", "00004242", date_time_field(e_->svc_end_tv)}) +
                  fmt("%010ld 0000001234 01     ", elapsed));
    EXPECT_EQ(cxt_->service_depth, 0);
    EXPECT_EQ(e_->service_depth, 0);
    EXPECT_EQ(cxt_->log_bit, 3);
    EXPECT_EQ(e_->svc_state, 'g');
}

TEST_F(TranService, PresetTimeIsUsedOnce) {
    e_->preset_start_tv = timeval{1700000000, 123456};
    EXPECT_EQ(call(TRAN_START, svc()), 0);
    // The time is the preset one; the date stays today's.
    EXPECT_EQ(body_field(next(), 184, 13), date_time_field(timeval{1700000000, 123456}).substr(9));
    EXPECT_EQ(e_->preset_start_tv.tv_sec, 0);
    e_->preset_start_tv = timeval{1700000001, 500};  // set between start and end: the end time
    EXPECT_EQ(call(TRAN_END, svc()), 0);
    TRAN_LOG_MSG m = next();
    EXPECT_EQ(body_field(m, 184, 13), date_time_field(timeval{1700000001, 500}).substr(9));
    EXPECT_EQ(body_field(m, 197, 10), "0000877044");  // 1.000500 - 0.123456 s
    EXPECT_EQ(e_->preset_start_tv.tv_sec, 0);
}

TEST_F(TranService, NestingUpToTenLevels) {
    for (int d = 1; d <= 10; ++d) {
        EXPECT_EQ(call(TRAN_START, svc(kGid, "SVC-" + std::to_string(d))), 0);
        EXPECT_EQ(next_depth(), fmt("%02d", d));
    }
    LogTail log;
    EXPECT_EQ(call(TRAN_START, svc(kGid, "SVC-11")), 0);
    EXPECT_EQ(next_depth(), "01");
    // The level count restarts, but the thread's record still says a service
    // was started and not ended.
    EXPECT_EQ(log.take(),
              (Lines{fmt("<!> START service_depth MAX error!(val:10 (MAX:10)) GID-PID-TID|%.30s|-%s, SVC (SVC-11).",
                         kGid.c_str(), pid_tid().c_str()),
                     fmt("[CHECK_LOG_BIT] NOK, set START_BIT [ tid : %d, log_bit : 1, PID : %d, GID - Keep {%s} Now "
                         "{%s}, SVC_ID - Keep {SVC-1           } Now {SVC-11} ]",
                         static_cast<int>(pthread_self()), getpid(), kGid.c_str(), kGid.c_str())}));

    // A GID equal in its first 30 characters is the same transaction.
    const std::string almost = kGid.substr(0, 30) + "XY";
    EXPECT_EQ(call(TRAN_START, svc(almost, "NESTED")), 0);
    EXPECT_EQ(next_depth(), "02");
    EXPECT_EQ(log.take(), Lines{});
    EXPECT_EQ(call(TRAN_END, svc(almost, "NESTED")), 0);
    TRAN_LOG_MSG m = next();
    EXPECT_EQ(body_field(m, 7, 32), almost);
    EXPECT_EQ(body_field(m, 197, 25), "0000000000 0000000000 02 ");
    EXPECT_EQ(call(TRAN_END, svc()), 0);
    next();
}

TEST_F(TranService, LinkedTransactionsAreAnnouncedUnlessQuiet) {
    EXPECT_EQ(call(TRAN_START, svc()), 0);
    next();
    LogTail log;
    EXPECT_EQ(call(TRAN_START, svc(kGid2, "SVC-LINKED")), 0);
    TRAN_LOG_MSG created = next(), exist = next();
    EXPECT_EQ(body_field(created, 0, 1), "I");
    EXPECT_EQ(body_field(created, 7, 32), kGid);  // the open service's
    EXPECT_EQ(body_field(created, 197, 351),
              padded("Linked Transaction Created [ GID '" + kGid2.substr(0, 30) +
                         "' ] , [ Service SVC-LINKED - Depth #2 ]",
                     350) +
                  " ");
    EXPECT_EQ(body_field(exist, 7, 32), kGid2);
    EXPECT_EQ(body_field(exist, 56, 16), padded("SVC-LINKED", 16));
    EXPECT_EQ(body_field(exist, 197, 350),
              padded("Linked Main Service Transaction Exist [ GID '" + kGid + "' ] , [ Service SVC-MAIN        ]",
                     350));
    EXPECT_EQ(next_depth(), "02");
    EXPECT_EQ(log.take(), Lines{fmt("(I) START - service depth change (1)->(2), New GID_UNI -> KEEP |%s-SVC-MAIN  "
                                    "      |, NOW |%.30s-SVC-LINKED|, svc_depth_elapsed 0 sec(base 60 sec)",
                                    kGid.c_str(), kGid2.c_str())});

    ServiceCall quiet = svc("OTHER-GID", "SVC-QUIET");
    quiet.tail[2] = "ICC";
    EXPECT_EQ(call(TRAN_START, quiet), 0);
    EXPECT_EQ(types(), "1");
    EXPECT_EQ(cxt_->service_depth, 3);
    // Process tracing knows no quiet channels.
    quiet.gid = "PT-GID";
    EXPECT_EQ(call(TRAN_PT_START, quiet), 0);
    EXPECT_EQ(types(), "II1");
}

TEST_F(TranService, AStaleTransactionIsDiscarded) {
    EXPECT_EQ(call(TRAN_START, svc()), 0);
    next();
    gvar.default_timeout_sec = 0;  // every open service is stale
    LogTail log;
    EXPECT_EQ(call(TRAN_START, svc(kGid, "SVC-AGAIN")), 0);
    EXPECT_EQ(next_depth(), "01");
    EXPECT_EQ(cxt_->log_bit, 1);
    EXPECT_EQ(log.take(), Lines{fmt("<!> START - service depth init (1)->(0) GID-PID-TID |%s|-%s, SVC (SVC-MAIN        "
                                    ")->(SVC-AGAIN) svc_depth_elapsed 0 sec (base 0 sec)",
                                    kGid.c_str(), pid_tid().c_str())});
    EXPECT_EQ(call(TRAN_START, svc(kGid2, "SVC-NEW")), 0);
    EXPECT_EQ(next_depth(), "01");
    EXPECT_EQ(log.take(), Lines{fmt("<!> START - service depth init (1)->(0), New GID_UNI -> KEEP |%s-SVC-AGAIN       "
                                    "|, NOW |%.30s-SVC-NEW|, svc_depth_elapsed 0 sec (base 0 sec)",
                                    kGid.c_str(), kGid2.c_str())});
    gvar.default_timeout_sec = 60;
    EXPECT_EQ(call(TRAN_END, svc(kGid2, "SVC-NEW")), 0);
    next();
}

TEST_F(TranService, EndOutsideAServiceAndGidChanges) {
    LogTail log;
    EXPECT_EQ(call(TRAN_END, svc()), VARNIX_RC_SVC_DEPTH);
    EXPECT_EQ(log.take(), Lines{fmt("<!> END service_depth error!(val:0 (MAX:10)) GID-PID-TID|%.30s|-%s, SVC "
                                    "(SVC-MAIN).",
                                    kGid.c_str(), pid_tid().c_str())});

    EXPECT_EQ(call(TRAN_START, svc()), 0);
    next();
    EXPECT_EQ(call(TRAN_END, svc("SHORT-GID", "SVC-MAIN")), 0);
    EXPECT_EQ(types(), "IIV2");
    EXPECT_EQ(log.take().back(), "(I) EVENT_GLOBAL_ID_CHANGED (GID SHORT-GID) TRAN_EVENT ret = 0");
    // The same GID given shorter than the stored one is no change.
    EXPECT_EQ(call(TRAN_START, svc("SHORT-GID", "SVC-MAIN")), 0);
    EXPECT_EQ(call(TRAN_END, svc("SHORT-GID", "SVC-MAIN")), 0);
    EXPECT_EQ(types(), "12");

    EXPECT_EQ(call(TRAN_START, svc()), 0);
    next();
    EXPECT_EQ(call(TRAN_END, svc(kGid2, "ARG-SVC")), 0);
    TRAN_LOG_MSG info1 = next(), info2 = next(), event = next(), end = next();
    EXPECT_EQ(body_field(info1, 7, 32), kGid);
    EXPECT_EQ(body_field(info1, 56, 16), padded("ARG-SVC", 16));
    EXPECT_EQ(body_field(info2, 7, 32), kGid2);
    EXPECT_EQ(body_field(event, 197, 5), "1801 ");
    EXPECT_EQ(body_field(event, 56, 16), padded("SVC-MAIN", 16));
    EXPECT_EQ(body_field(event, 220, 100),
              padded("< Warning!! > GID 30 Bytes Changed.[ Start GID '" + kGid.substr(0, 30) + "' -> End GID '" +
                         kGid2.substr(0, 30) + "' ]",
                     100));
    EXPECT_EQ(body_field(end, 7, 32), kGid);
    EXPECT_EQ(body_field(end, 56, 16), padded("SVC-MAIN", 16));
}

TEST_F(TranService, FinishedSnapshotIsAnnounced) {
    e_->snapshot_state = 1;
    std::memcpy(e_->snapshot_tr_cd, "TR01\0", 5);
    ServiceCall s = svc();
    s.tail[2] = "TR01";  // the channel type column carries the trade code
    EXPECT_EQ(call(TRAN_START, s), 0);
    next();
    EXPECT_EQ(e_->snapshot_state, 2);
    EXPECT_EQ(call(TRAN_END, s), 0);  // the event's queue
    TRAN_LOG_MSG end = next(), event = next();
    EXPECT_EQ(body_field(event, 197, 223),
              "1302 TR01         O    " +
                  padded("거래코드(TR01)에 대한 SNAPSHOT 모니터링을 완료하였습니다. [서비스(SVC-MAIN        ) 응답시간: " +
                             std::string(body_field(end, 197, 10)) + " (us)]",
                         200));
    EXPECT_EQ(e_->snapshot_state, 0);
}

TEST_F(TranService, ErrorsBelongToTheOpenServiceAndFilteredServicesLeaveNoLevel) {
    LogTail log;
    EXPECT_EQ(call(TRAN_ERROR, svc()), VARNIX_RC_SVC_DEPTH);
    EXPECT_EQ(log.take(), Lines{});
    EXPECT_EQ(call(TRAN_START, svc()), 0);
    next();
    ServiceCall err = svc("IGNORED", "IGNORED");
    err.time_str = "235959000001";
    EXPECT_EQ(call(TRAN_ERROR, err), 0);
    TRAN_LOG_MSG m = next();
    const std::string date_time = std::string(body_field(m, 175, 9)) + "235959000001 ";
    EXPECT_EQ(body_field(m, 0, 222), header_of(m, *cxt_, {'9', "CL", "D", kGid, "SVC-MAIN", "", date_time}) +
                                         "0000000000 0000000000 01 ");
    EXPECT_EQ(cxt_->service_depth, 1);
    EXPECT_EQ(call(TRAN_END, svc()), 0);
    EXPECT_NE(body_field(next(), 197, 10), "0000000000");  // the end still measures the service
    cxt_->service_depth = 1;  // a level left after its end was recorded
    EXPECT_EQ(call(TRAN_ERROR, svc()), VARNIX_RC_NO_SERVICE);

    cxt_->service_depth = 0;
    TestIpc::get().que_info().svc_filtering = 2;
    EXPECT_EQ(call(TRAN_START, svc()), VARNIX_RC_FILTERED);
    EXPECT_EQ(cxt_->service_depth, 1);
    EXPECT_EQ(call(TRAN_END, svc()), VARNIX_RC_FILTERED);
    EXPECT_EQ(cxt_->service_depth, 0);
    EXPECT_EQ(e_->service_depth, 0);
}

TEST_F(TranService, ProcessTracingPair) {
    ServiceCall s = svc();
    const char* cols[13] = {"Y", "KB0001", "ICC", "RECV-SVC-01", "SCREEN-01", "EMP0001", "0", "ERR000001",
                            "param one", "param two", "param three", "param four", "p5!"};
    std::copy(std::begin(cols), std::end(cols), s.tail.begin());
    EXPECT_EQ(call(TRAN_PT_START, s), 0);
    TRAN_LOG_MSG m = next();
    EXPECT_EQ(body_len(m), 386u);
    EXPECT_EQ(body_field(m, 219, 167), "01 Y KB0001 ICC RECV-SVC-01  SCREEN-01 EMP0001 0 ERR000001 " +
                                           padded("param one", 30) + " " + padded("param two", 20) + " " +
                                           padded("param three", 20) + " " + padded("param four", 30) + " p5! ");
    EXPECT_EQ(e_->chnl_class, 'O');
    e_->fetch_cnt = 7;
    EXPECT_EQ(call(TRAN_PT_END, svc(kGid2, "ANY")), 0);  // no GID check
    m = next();
    EXPECT_EQ(body_len(m), 386u);
    EXPECT_EQ(body_field(m, 0, 40), "2 CL D " + kGid + " ");
    EXPECT_EQ(e_->fetch_cnt, 7);
    EXPECT_EQ(cxt_->log_bit, 3);
}

}  // namespace
}  // namespace varnix::test
