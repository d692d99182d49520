// Service start, end and error, standard and process tracing: the records in order, the state left behind.
#include <gtest/gtest.h>
#include <pthread.h>

#include <cstring>
#include <ctime>

#include "core/clock.h"
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

class TranService : public OrderedRecords {
protected:
    ServiceCall svc(const std::string& gid = kGid, const std::string& id = "SVC-MAIN") {
        return ServiceCall{.gid = gid, .svc_id = id};
    }
    TRAN_LOG_MSG next() { return received(0); }
    std::string types() {  // the types of every waiting record, in order
        std::string t;
        for (TRAN_LOG_MSG m{}; TestIpc::get().collector().receive(m, 0) == 0;) t += m.text[4];
        return t;
    }
    std::string depth() { return std::string(body_field(next(), 219, 2)); }  // of the next record
    // Service depths in context and entry, and the start/end bit.
    std::string state() { return fmt("%d %d %d", cxt_->service_depth, e_->service_depth, cxt_->log_bit); }
};

TEST_F(TranService, OutermostStartEndAndCallStatistics) {
    ServiceCall s = svc();
    s.tail = {"Y", "KB0001", "ICT", "RECV-SVC-0001", "SCREEN-01", "EMP0001", "0", "ERR000001", "00001024", "fe80::1",
              "FST", "TRM", "Q", "S", "RSLT-RECV-01", "EAI-INTERFACE-01", "DSB", "OTSD", "OBZ", "first medium",
              "1", "2"};
    s.pid_str = "00004242";
    EXPECT_EQ(call(TRAN_START, s), 0);
    TRAN_LOG_MSG m = next();
    EXPECT_EQ(body_field(m, 0, body_len(m)),
              header_of(m, *cxt_, {'1', "CL", "D", kGid, "SVC-MAIN", "00004242", date_time_field(e_->svc_start_tv)}) +
                  "0000000000 0000000000 01 Y KB0001 ICT RECV-SVC-000 SCREEN-01 EMP0001 0 ERR000001 00001024 " +
                  padded("fe80::1", 39) + " FST TRM Q S RSLT-RECV-01 EAI-INTERFACE-01 DSB OTSD OBZ " +
                  padded("first medium", 39) + " 1 2 ");
    EXPECT_EQ(state() + fmt(" %c %c %.12s", e_->svc_state, e_->chnl_class, e_->main_recv_svc_cd),
              "1 1 1 f C RECV-SVC-000");
    // The outermost end reports the statistics first: counts 3/2, sums 4500/3000 us, maxima 2 (own 1)/2 ms, depth 3.
    e_->call_elapsed_sum = 1234, e_->total_call_cnt = 5, e_->fetch_rows_sum = 42, e_->fetch_time_sum = 12345;
    cxt_->call_stat = CallStat{3, 2, 4500, 3000, 2, 1, 2, 3, 0};
    std::memcpy(e_->db_user, "SCOTT", 6), std::memcpy(e_->db_sid, "ORCL", 5);
    EXPECT_EQ(call(TRAN_END, svc(kGid, "OTHER-ARG")), 0);  // the records take the started service
    m = next();
    EXPECT_EQ(std::string(body_field(m, 0, 1)) + std::string(body_field(m, 56, 16)), "I" + padded("SVC-MAIN", 16));
    EXPECT_EQ(body_field(m, 197, 350),
              padded("처리 모듈(함수)통계 [ 총 호출 5 건 ] [ Max Depth 3 ] [ BIZCALL(Method) 3건 (전체 Avg/Max   "
                     "1.50/2 ms, 개별 Max 1 ms) ], [ DBIO 2건 (Avg/Max   1.50/2 ms) fetch 42 rows (12.345 ms), (DBConn "
                     "SCOTT/ORCL) ]",
                     350));
    m = next();  // a pid given once stays; columns not given are blank
    EXPECT_EQ(body_field(m, 0, 226),
              header_of(m, *cxt_, {'2', "CL", "D", kGid, "SVC-MAIN", "00004242", date_time_field(e_->svc_end_tv)}) +
                  fmt("%010ld 0000001234 01     ", usec_of(e_->svc_end_tv) - usec_of(e_->svc_start_tv)));
    EXPECT_EQ(state() + fmt(" %c", e_->svc_state), "0 0 3 g");
    // A time preset before the next start or end is used once, by it; the date stays today's.
    e_->preset_start_tv = timeval{1700000000, 123456};
    EXPECT_EQ(call(TRAN_START, svc()), 0);
    EXPECT_EQ(body_field(next(), 184, 13), date_time_field(timeval{1700000000, 123456}).substr(9));
    e_->preset_start_tv = timeval{1700000001, 500};
    EXPECT_EQ(call(TRAN_END, svc()), 0);
    EXPECT_EQ(body_field(next(), 184, 23), date_time_field(timeval{1700000001, 500}).substr(9) + "0000877044");
    EXPECT_EQ(e_->preset_start_tv.tv_sec, 0);
}

// Times another process wrote into the entry: the records carry the nearest
// numbers their fields can show, and the arithmetic stays defined.
TEST_F(TranService, ExtremeTimesInTheEntryStayInTheirFields) {
    e_->preset_start_tv = timeval{INT64_MIN, -5};  // stamped as the epoch, the microseconds as printf shows them
    EXPECT_EQ(call(TRAN_START, svc()), 0);
    EXPECT_EQ(body_field(next(), 184, 13), date_time_field(timeval{0, 0}).substr(9, 6) + "-00005 ");
    e_->svc_start_tv = timeval{1'000'000'000'000'000, 0};  // 10^21 us: later than any end
    e_->call_elapsed_sum = INT64_MAX;
    EXPECT_EQ(call(TRAN_END, svc()), 0);
    EXPECT_EQ(body_field(next(), 197, 21), "-999999999 9999999999");
    // A mark time that no 32-bit count of seconds reaches: the open service
    // counts as abandoned.
    LogTail log;
    EXPECT_EQ(call(TRAN_START, svc()), 0);
    e_->svc_mark_time = -(int64_t{1} << 31);
    EXPECT_EQ(call(TRAN_START, svc(kGid, "SVC-NEXT")), 0);
    EXPECT_EQ(types(), "11");
    EXPECT_EQ(log.take(), Lines{fmt("<!> START - service depth init (1)->(0) GID-PID-TID |%s|-|%d|-|%d|, SVC "
                                    "(SVC-MAIN        )->(SVC-NEXT) svc_depth_elapsed 2147483647 sec (base %d sec)",
                                    kGid.c_str(), getpid(), static_cast<int>(pthread_self()), gvar.default_timeout_sec)});
}

TEST_F(TranService, NestingUpToTenLevelsStaleAndLinkedTransactions) {
    std::string depths;
    LogTail log;
    for (int d = 1; d <= 11; ++d) EXPECT_EQ(call(TRAN_START, svc(kGid, "SVC-" + std::to_string(d))), 0);
    for (int d = 1; d <= 11; ++d) depths += depth();
    EXPECT_EQ(depths, "0102030405060708091001");
    // The eleventh restarts the count, and the record still says started, not ended: both logged.
    EXPECT_EQ(log.take().size(), 2u);
    // A GID equal in its first 30 characters is the same transaction.
    for (const auto& f : {TRAN_START, TRAN_END}) {
        EXPECT_EQ(call(f, svc(kGid.substr(0, 30) + "XY", "NESTED")), 0);
        EXPECT_EQ(depth(), "02");
    }
    // A transaction open longer than the time-out is discarded.
    gvar.default_timeout_sec = 0;
    EXPECT_EQ(call(TRAN_START, svc(kGid, "SVC-AGAIN")), 0);
    EXPECT_EQ(depth(), "01");
    EXPECT_EQ(log.take(), Lines{fmt("<!> START - service depth init (1)->(0) GID-PID-TID |%s|-|%d|-|%d|, SVC (SVC-11  "
                                    "        )->(SVC-AGAIN) svc_depth_elapsed 0 sec (base 0 sec)",
                                    kGid.c_str(), getpid(), static_cast<int>(pthread_self()))});
    // Another transaction started inside the open one is linked to it: notices with the open and the new GID.
    gvar.default_timeout_sec = 60;
    EXPECT_EQ(call(TRAN_START, svc(kGid2, "SVC-LINKED")), 0);
    TRAN_LOG_MSG created = next(), exist = next();
    EXPECT_EQ(std::string(body_field(created, 7, 32)) + std::string(body_field(exist, 7, 32)), kGid + kGid2);
    EXPECT_EQ(std::string(body_field(created, 197, 350)) + std::string(body_field(exist, 197, 350)),
              padded("Linked Transaction Created [ GID '" + kGid2.substr(0, 30) +
                         "' ] , [ Service SVC-LINKED - Depth #2 ]", 350) +
                  padded("Linked Main Service Transaction Exist [ GID '" + kGid + "' ] , [ Service SVC-AGAIN       ]",
                         350));
    EXPECT_EQ(depth(), "02");
    EXPECT_EQ(log.take(), Lines{fmt("(I) START - service depth change (1)->(2), New GID_UNI -> KEEP |%s-SVC-AGAIN "
                                    "      |, NOW |%.30s-SVC-LINKED|, svc_depth_elapsed 0 sec(base 60 sec)",
                                    kGid.c_str(), kGid2.c_str())});
    const ServiceCall quiet{.gid = "OTHER-GID", .svc_id = "SVC-QUIET", .tail = {nullptr, nullptr, "ICC"}};
    EXPECT_EQ(call(TRAN_START, quiet), 0);  // a quiet channel type: not announced
    EXPECT_EQ(types(), "1");
}

TEST_F(TranService, OutsideAServiceGidChangesProcessTracingErrorsSnapshotsAndFiltering) {
    LogTail log;
    EXPECT_EQ(call(TRAN_ERROR, svc()), VARNIX_RC_SVC_DEPTH);
    EXPECT_EQ(call(TRAN_END, svc()), VARNIX_RC_SVC_DEPTH);
    EXPECT_EQ(log.take(), Lines{fmt("<!> END service_depth error!(val:0 (MAX:10)) GID-PID-TID|%.30s|-|%d|-|%d|, SVC "
                                    "(SVC-MAIN).",
                                    kGid.c_str(), getpid(), static_cast<int>(pthread_self()))});
    // The same GID given shorter than the stored one is no change.
    EXPECT_EQ(call(TRAN_START, svc("SHORT-GID", "SVC-MAIN")), 0);
    EXPECT_EQ(call(TRAN_END, svc("SHORT-GID", "SVC-MAIN")), 0);
    EXPECT_EQ(types(), "12");
    EXPECT_EQ(call(TRAN_START, svc()), 0);
    EXPECT_EQ(call(TRAN_END, svc(kGid2, "ARG-SVC")), 0);
    EXPECT_EQ(log.take(), Lines{"(I) EVENT_GLOBAL_ID_CHANGED (GID " + kGid2.substr(0, 30) + ") TRAN_EVENT ret = 0"});
    TRAN_LOG_MSG start = next(), info1 = next(), info2 = next(), event = next(), end = next();
    // Two notices with the start's and the end's GID, the event, the end as started.
    EXPECT_EQ(std::string(body_field(info1, 7, 32)) + std::string(body_field(info2, 7, 32)), kGid + kGid2);
    EXPECT_EQ(std::string(body_field(event, 197, 5)) + std::string(body_field(event, 220, 100)),
              "1801 " + padded("< Warning!! > GID 30 Bytes Changed.[ Start GID '" + kGid.substr(0, 30) +
                                   "' -> End GID '" + kGid2.substr(0, 30) + "' ]", 100));
    EXPECT_EQ(body_field(end, 7, 65), body_field(start, 7, 65));
    // Process tracing: its own columns, and no GID check at the end.
    ServiceCall s = svc();
    s.tail = {"Y",         "KB0001",    "ICC",       "RECV-SVC-01", "SCREEN-01", "EMP0001", "0",
              "ERR000001", "param one", "param two", "param three", "param four", "p5!"};
    EXPECT_EQ(call(TRAN_PT_START, s), 0);
    TRAN_LOG_MSG m = next();
    EXPECT_EQ(body_field(m, 219, body_len(m) - 219), "01 Y KB0001 ICC RECV-SVC-01  SCREEN-01 EMP0001 0 ERR000001 " +
                                           padded("param one", 30) + " " + padded("param two", 20) + " " +
                                           padded("param three", 20) + " " + padded("param four", 30) + " p5! ");
    EXPECT_EQ(call(TRAN_PT_END, svc(kGid2, "ANY")), 0);
    EXPECT_EQ(body_field(next(), 0, 40), "2 CL D " + kGid + " ");
    EXPECT_EQ(cxt_->log_bit, 3);
    // A snapshot armed for the trade code the channel type column carries.
    e_->snapshot_state = 1, std::memcpy(e_->snapshot_tr_cd, "TR01", 5);
    s = ServiceCall{.gid = kGid, .svc_id = "SVC-MAIN", .tail = {nullptr, nullptr, "TR01"}};
    EXPECT_EQ(call(TRAN_START, s), 0);
    EXPECT_EQ(call(TRAN_ERROR, ServiceCall{.gid = "IGNORED", .svc_id = "IGNORED", .time_str = "235959000001"}), 0);
    next();
    m = next();
    const std::string date_time = std::string(body_field(m, 175, 9)) + "235959000001 ";
    EXPECT_EQ(body_field(m, 0, 222), header_of(m, *cxt_, {'9', "CL", "D", kGid, "SVC-MAIN", "", date_time}) +
                                         "0000000000 0000000000 01 ");
    // The end still measures the service, and announces the finished snapshot.
    EXPECT_EQ(call(TRAN_END, svc()), 0);
    end = next(), event = next();
    EXPECT_NE(body_field(end, 197, 10), "0000000000");
    EXPECT_EQ(body_field(event, 197, 223),
              "1302 TR01         O    " +
                  padded("거래코드(TR01)에 대한 SNAPSHOT 모니터링을 완료하였습니다. [서비스(SVC-MAIN        ) 응답시간: " +
                             std::string(body_field(end, 197, 10)) + " (us)]",
                         200));
    EXPECT_EQ(e_->snapshot_state, 0);
    cxt_->service_depth = 1;  // a level left after its end was recorded
    EXPECT_EQ(call(TRAN_ERROR, svc()), VARNIX_RC_NO_SERVICE);
    cxt_->service_depth = 0;
    TestIpc::get().que_info().svc_filtering = 2;
    EXPECT_EQ(call(TRAN_START, svc()), VARNIX_RC_FILTERED);
    EXPECT_EQ(call(TRAN_END, svc()), VARNIX_RC_FILTERED);  // the filtered start still opened a level
    EXPECT_EQ(state(), "0 0 3");
}

}  // namespace
}  // namespace varnix::test
