// Call tracing: the level stack in the process-thread entry, the three record
// texts, the elapsed-time split, depth and nesting rules, limits and forcing.
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <string>
#include <vector>

#include "core/gvar.h"
#include "support/calls.h"

namespace varnix::test {
namespace {

constexpr int64_t kSecond = 1000000;

class CallInfo : public InService {
protected:
    // Opens a call and reports the kind it got.
    char kind_of(const char* func) {
        if (call_start(func) != 0) return '?';
        const char kind = e_->call_lvl[e_->trc_lvl - 1].call_kind;
        call_finish(func);
        return kind;
    }
};

TEST_F(CallInfo, BizcallRecordBytesAndLevelState) {
    ASSERT_EQ(call_start("biz_func", "start_mod", "start.c", 7, 0), 0);
    const CALL_LVL& l = level(0);
    EXPECT_EQ(levels(), "lvl 1 depth 1 calls 1");
    EXPECT_EQ(e_->dbio_sts, 0);
    EXPECT_EQ(e_->sql_code, 9999);
    EXPECT_EQ(l.call_kind, 'C');
    EXPECT_EQ(l.call_seq, 1);
    EXPECT_EQ(l.line_no, 7);
    age(*e_, 0, 2 * kSecond + 250000);

    TRAN_LOG_MSG m = sent(call_finish("biz_func", -3, "SVC", "fin_mod", "fin.c", 42));
    const int64_t elapsed = usec_of(l.end_tv) - usec_of(l.start_tv);
    EXPECT_GE(elapsed, 2 * kSecond + 250000);
    EXPECT_EQ(body_len(m), 548u);
    const std::string text = "1,10," + secs_text(elapsed) + "," + secs_text(elapsed) + ",0.000000,0.000000," +
                             secs_text(l.start_tv) + "," + secs_text(l.end_tv) +
                             ",[SVC][biz_func at fin_mod (fin.c::00042){1}]#RC -3";
    EXPECT_EQ(body_field(m, 0, 548),
              header_of(m, *cxt_, {'C', "CL", "D", kCallGid, kCallSvc, "", "20260102 030405123456 "}) +
                  padded(text, 350) + " ");
    EXPECT_EQ(l.rc, -3);
    EXPECT_EQ(l.elapsed_sum, elapsed);
    EXPECT_EQ(levels(), "lvl 0 depth 0 calls 1");
    EXPECT_EQ(e_->last_fin_lvl, 1);
}

TEST_F(CallInfo, DbioRecordsFirstAndLaterFinishAtALevel) {
    std::memcpy(e_->db_user, "scott", 6);
    std::memcpy(e_->db_sid, "ORCL", 5);
    ASSERT_EQ(call_start("DBIO_select", "m", "dbio.pc", 3), 0);
    EXPECT_EQ(e_->dbio_sts, 1);
    EXPECT_EQ(level(0).call_kind, 'B');
    e_->sql_code = -1403;
    e_->fetch_last[0] = 7, e_->fetch_last[1] = 12345, e_->fetch_last[2] = 88;
    TRAN_LOG_MSG m = sent(call_finish("DBIO_select", -2, nullptr, nullptr, nullptr, 5));
    const CALL_LVL& l = level(0);
    const int64_t e1 = usec_of(l.end_tv) - usec_of(l.start_tv);
    EXPECT_EQ(body_field(m, 0, 7), "B CL D ");
    std::string text = "1,10," + secs_text(e1) + ",0.000000,0.000000,0.000000," + secs_text(l.start_tv) + "," +
                       secs_text(l.end_tv) +
                       ",[][DBIO_select at  (dbio.pc::00005){1}]#SQLCODE -1403, #RC -2 (line 88) fetch 7 rows "
                       "(12.345 ms) DB scott/ORCL";
    EXPECT_EQ(body_field(m, 197, 351), padded(text, 350) + " ");

    // The next start clears the SQL and fetch state; the later finish at the
    // same level has no blank before the fetch time and a long return code.
    ASSERT_EQ(call_start("DBIO_update"), 0);
    EXPECT_EQ(e_->sql_code, 9999);
    EXPECT_EQ(e_->fetch_last[0] + e_->fetch_last[1] + e_->fetch_last[2], 0);
    e_->fetch_last[1] = 12005, e_->fetch_last[2] = 9;
    m = sent(call_finish("DBIO_update", -7, "DBIO"));
    const int64_t e2 = usec_of(l.end_tv) - usec_of(l.start_tv);
    text = "1,10," + secs_text(e2) + ",0.000000,0.000000,0.000000," + secs_text(l.start_tv) + "," +
           secs_text(l.end_tv) +
           ",[DBIO][DBIO_update at fin_mod (fin.c::00042){2}]#SQLCODE 9999, #RC -7 (line 9) fetch 0 rows(12.5 ms) "
           "DB scott/ORCL";
    EXPECT_EQ(body_field(m, 197, 351), padded(text, 350) + " ");
    EXPECT_EQ(e_->call_elapsed_sum, e1 + e2);
    EXPECT_EQ(l.elapsed_sum, e1 + e2);
    EXPECT_EQ(l.dbio_sum, e1 + e2);
}

// A(B(d1), C(d2, c2)): every record's own, called and DBIO times add up to
// its elapsed time from the records of the calls it made.
TEST_F(CallInfo, NestedCallsSplitTheirElapsedTime) {
    const CALL_LVL outer = level(0);
    ASSERT_EQ(call_start("biz_A"), 0);
    age(*e_, 0, 10 * kSecond);
    ASSERT_EQ(call_start("biz_B"), 0);
    age(*e_, 1, 4 * kSecond);
    ASSERT_EQ(call_start("DBIO_d1"), 0);
    age(*e_, 2, kSecond);
    const CallText d1 = finished("DBIO_d1");
    const CallText b = finished("biz_B");
    ASSERT_EQ(call_start("biz_C"), 0);
    age(*e_, 1, 3 * kSecond);
    ASSERT_EQ(call_start("DBIO_d2"), 0);
    age(*e_, 2, kSecond / 2);
    const CallText d2 = finished("DBIO_d2");
    ASSERT_EQ(call_start("biz_c2"), 0);
    age(*e_, 2, kSecond / 4);
    const CallText c2 = finished("biz_c2");
    const CallText c = finished("biz_C");
    const CallText a = finished("biz_A");

    EXPECT_EQ(d1.level, 3);
    EXPECT_EQ(b.level, 2);
    EXPECT_EQ(c2.level, 3);
    EXPECT_EQ(a.level, 1);
    for (const CallText* t : {&d1, &b, &d2, &c2, &c, &a}) EXPECT_EQ(t->elapsed, t->end - t->start) << t->rest;
    EXPECT_GE(d2.elapsed, kSecond / 2);
    EXPECT_EQ(b.own, b.elapsed - d1.elapsed);
    EXPECT_EQ(b.called, 0);
    EXPECT_EQ(b.dbio, d1.elapsed);
    EXPECT_EQ(c2.own, c2.elapsed);  // no calls of its own
    EXPECT_EQ(c.own, c.elapsed - d2.elapsed - c2.elapsed);
    EXPECT_EQ(c.called, c2.elapsed);
    EXPECT_EQ(c.dbio, d2.elapsed);
    EXPECT_EQ(a.own, a.elapsed - b.elapsed - c.elapsed);
    EXPECT_EQ(a.called, b.elapsed + c.elapsed - d1.elapsed - d2.elapsed);
    EXPECT_EQ(a.dbio, d1.elapsed + d2.elapsed);
    EXPECT_GT(a.own, 2 * kSecond);
    EXPECT_EQ(a.rest, "[METHOD][biz_A at fin_mod (fin.c::00042){1}]#RC 0");
    EXPECT_EQ(c2.rest, "[METHOD][biz_c2 at fin_mod (fin.c::00042){6}]#RC 0");

    // The outermost level accumulates (nothing consumes it, and a service
    // start does not clear it); the deeper ones were consumed by the calls
    // that made them.
    EXPECT_EQ(e_->call_elapsed_sum, d1.elapsed + d2.elapsed);
    EXPECT_EQ(level(0).elapsed_sum - outer.elapsed_sum, a.elapsed);
    EXPECT_EQ(level(0).dbio_sum - outer.dbio_sum, d1.elapsed + d2.elapsed);
    for (int i : {1, 2}) EXPECT_EQ(level(i).elapsed_sum + level(i).dbio_sum, 0) << i;
}

TEST_F(CallInfo, DbioSignatureDecidesTheKind) {
    e_->call_trc_limit = e_->dbio_trc_limit = 3600 * kSecond;  // no records
    // Configured "0 DBIO_": the name starts with the pattern.
    EXPECT_EQ(kind_of("DBIO_select"), 'B');
    EXPECT_EQ(kind_of("xDBIO_select"), 'C');
    EXPECT_EQ(kind_of("DBIO"), 'C');  // the pattern runs past the name's end
    EXPECT_EQ(kind_of(nullptr), 'C');

    gvar.dbio_func_no = 2;
    std::memset(gvar.dbio_func_nm, 0, sizeof gvar.dbio_func_nm);
    std::memcpy(gvar.dbio_func_nm, "DB", 2);
    EXPECT_EQ(kind_of("xxDBselect"), 'B');
    EXPECT_EQ(kind_of("DBselect"), 'C');
    EXPECT_EQ(kind_of("xxD"), 'C');
    EXPECT_EQ(kind_of("xx"), 'C');
    std::memcpy(gvar.dbio_func_nm, "DBIO_SELEC", 10);  // only 7 characters compared
    EXPECT_EQ(kind_of("xxDBIO_SExyz"), 'B');
    EXPECT_EQ(kind_of("xxDBIO_SxLEC"), 'C');
    gvar.dbio_func_no = -1;  // nothing is DBIO
    EXPECT_EQ(kind_of("xxDBIO_SELEC"), 'C');
    gvar.dbio_func_no = 0;
    std::memset(gvar.dbio_func_nm, 0, sizeof gvar.dbio_func_nm);  // empty pattern: every name
    EXPECT_EQ(kind_of("anything"), 'B');
    EXPECT_EQ(kind_of(nullptr), 'C');
    EXPECT_EQ(e_->trc_lvl, 0);
}

// CALL_TRC_DEPTH 3: a fourth nested BIZCALL is neither stacked nor recorded
// nor counted; a DBIO call below it still is.
TEST_F(CallInfo, CallsDeeperThanTheDepthLimitAreNotTraced) {
    TestIpc::get().que_info().call_trc_depth = 3;
    ASSERT_EQ(open_service(*cxt_, kCallGid, kCallSvc), 0);
    EXPECT_EQ(e_->call_trc_depth_max, 3);
    for (const char* f : {"biz_A", "biz_B", "biz_C", "biz_D"}) ASSERT_EQ(call_start(f), 0) << f;
    EXPECT_EQ(levels(), "lvl 3 depth 4 calls 4");
    ASSERT_EQ(call_start("DBIO_x"), 0);
    EXPECT_EQ(levels(), "lvl 4 depth 5 calls 5");
    age(*e_, 3, kSecond);
    const CallText x = finished("DBIO_x");
    EXPECT_EQ(x.level, 4);
    EXPECT_EQ(x.depth_max, 3);
    EXPECT_EQ(call_finish("biz_D"), VARNIX_RC_NOT_TRACED);
    EXPECT_EQ(levels(), "lvl 3 depth 3 calls 5");
    const CallText c = finished("biz_C");
    EXPECT_EQ(c.level, 3);
    EXPECT_EQ(c.dbio, x.elapsed);  // the untraced call's time is C's own
    EXPECT_EQ(finished("biz_B").level, 2);
    EXPECT_EQ(finished("biz_A").level, 1);
    EXPECT_EQ(levels(), "lvl 0 depth 0 calls 5");
    EXPECT_EQ(cxt_->call_stat.max_call_depth, 5u);
    EXPECT_EQ(cxt_->call_stat.biz_cnt, 3u);
    EXPECT_EQ(cxt_->call_stat.dbio_cnt, 1u);
}

// Calls below their limit send nothing, unless an error return code forces
// a record.
TEST_F(CallInfo, LimitsAndErrorReturnCodesThatForceRecordsOncePerService) {
    TRAN_LOGF_QUE_INFO& q = TestIpc::get().que_info();
    q.fst_err_rc_set[5] = 2;
    q.fst_err_rc_set[6] = 1;
    const int64_t hour = 3600 * kSecond;
    e_->call_trc_limit = e_->dbio_trc_limit = hour;

    // Verdict 2: the failing call and every call open around it.
    for (const char* f : {"biz_A", "biz_B", "biz_C"}) ASSERT_EQ(call_start(f), 0);
    EXPECT_EQ(finished("biz_C", -5).rest, "[METHOD][biz_C at fin_mod (fin.c::00042){3}]#RC -5");
    EXPECT_EQ(level(2).force_rec, 0);
    EXPECT_EQ(level(1).force_rec, 1);
    EXPECT_EQ(level(0).force_rec, 1);
    EXPECT_EQ(e_->err_rc_marked, 1);
    EXPECT_EQ(finished("biz_B").level, 2);
    // Once per service: later failures force nothing.
    ASSERT_EQ(call_start("biz_D"), 0);
    EXPECT_EQ(call_finish("biz_D", -5), VARNIX_RC_BIZ_FAST);
    ASSERT_EQ(call_start("DBIO_E"), 0);
    e_->sql_rec_cnt = 2;  // statements kept for the call are closed all the same
    EXPECT_EQ(call_finish("DBIO_E", -6), VARNIX_RC_DBIO_FAST);
    EXPECT_EQ(e_->sql_rec_cnt, 0);
    EXPECT_EQ(finished("biz_A").level, 1);

    // Verdict 1, in a new service: the failing call only.
    ASSERT_EQ(open_service(*cxt_, kCallGid, kCallSvc), 0);
    EXPECT_EQ(e_->err_rc_marked, 0);
    e_->call_trc_limit = e_->dbio_trc_limit = hour;
    for (const char* f : {"biz_A", "DBIO_B"}) ASSERT_EQ(call_start(f), 0);
    EXPECT_EQ(finished("DBIO_B", -6).level, 2);
    EXPECT_EQ(call_finish("biz_A"), VARNIX_RC_BIZ_FAST);

    // Start option -1: the return code becomes 99 and forces nothing.
    ASSERT_EQ(open_service(*cxt_, kCallGid, kCallSvc), 0);
    e_->call_trc_limit = hour;
    ASSERT_EQ(call_start("biz_opt", "m", "s.c", 1, -1), 0);
    EXPECT_EQ(call_finish("biz_opt", -5), VARNIX_RC_BIZ_FAST);
    EXPECT_EQ(level(0).rc, 99);
    EXPECT_EQ(e_->err_rc_marked, 0);
    e_->call_trc_limit = 0;
    ASSERT_EQ(call_start("biz_opt", "m", "s.c", 1, -1), 0);
    EXPECT_EQ(finished("biz_opt", -5).rest, "[METHOD][biz_opt at fin_mod (fin.c::00042){2}]#RC 99");

    // A call as long as its limit is recorded.
    e_->call_trc_limit = e_->dbio_trc_limit = 5 * kSecond;
    for (const char* f : {"biz_slow", "DBIO_slow"}) {
        ASSERT_EQ(call_start(f), 0);
        age(*e_, 0, 5 * kSecond);
        EXPECT_GE(finished(f).elapsed, 5 * kSecond);
    }
}

TEST_F(CallInfo, DbioInsideDbioIsRefusedAndBizcallsInsideDbioAreChildren) {
    LogTail log;
    ASSERT_EQ(call_start("DBIO_a"), 0);
    EXPECT_EQ(call_start("DBIO_b"), VARNIX_RC_DBIO_IN_DBIO);
    EXPECT_EQ(log.take(), std::vector<std::string>{
                              "<!> log_type error, DBIO_TYPE {2-DBIO_b} can't call in DBIO_TYPE {1-DBIO_a}."});
    EXPECT_EQ(e_->trc_lvl, 1);
    // The refused call's finish closes the open DBIO call's level.
    EXPECT_EQ(finished("DBIO_b").rest.find("[][DBIO_a at "), 0u);
    EXPECT_EQ(call_finish("DBIO_a"), VARNIX_RC_CALL_DEPTH);
    EXPECT_EQ(log.take(), std::vector<std::string>{
                              "<!> depth error, function(DBIO_a) call does not match the start and end."});
    // The refused start counted in the depth and was not taken back.
    EXPECT_EQ(e_->call_trc_depth, 1);

    // A DBIO call with traced BIZCALLs inside takes the BIZCALL form and
    // limit, and its time is not added to the service's DBIO sum.
    ASSERT_EQ(open_service(*cxt_, kCallGid, kCallSvc), 0);
    ASSERT_EQ(call_start("DBIO_outer"), 0);
    age(*e_, 0, 2 * kSecond);
    ASSERT_EQ(call_start("biz_inner"), 0);
    const CallText inner = finished("biz_inner");
    TRAN_LOG_MSG m = sent(call_finish("DBIO_outer"));
    const CallText outer = parse_call_text(m);
    EXPECT_EQ(body_field(m, 0, 1), "B");
    EXPECT_EQ(outer.own, outer.elapsed - inner.elapsed);
    EXPECT_EQ(outer.called, inner.elapsed);
    EXPECT_EQ(outer.rest, "[METHOD][DBIO_outer at fin_mod (fin.c::00042){1}]#RC 0");
    EXPECT_EQ(e_->call_elapsed_sum, 0);
    EXPECT_EQ(cxt_->call_stat.dbio_cnt, 1u);
}

TEST_F(CallInfo, DepthErrorsAndCallsOutsideAService) {
    LogTail log;
    EXPECT_EQ(call_finish(nullptr), VARNIX_RC_CALL_DEPTH);
    EXPECT_EQ(log.take(),
              std::vector<std::string>{"<!> depth error, function() call does not match the start and end."});

    e_->call_trc_depth = -5;
    EXPECT_EQ(call_start("neg_f"), VARNIX_RC_CALL_DEPTH);
    EXPECT_EQ(log.take(), std::vector<std::string>{"<!> call_trc_depth error, function(neg_f) call."});
    EXPECT_EQ(levels(), "lvl 0 depth -4 calls 1");
    e_->call_trc_depth = 0;
    ASSERT_EQ(call_start("f"), 0);
    e_->call_trc_depth = -1;
    EXPECT_EQ(call_finish("f"), VARNIX_RC_CALL_DEPTH);
    EXPECT_EQ(log.take(), std::vector<std::string>{"<!> depth error, function(f) call."});
    EXPECT_EQ(e_->trc_lvl, 1);

    // 51 levels at most: the 52nd start is refused without a message.
    ASSERT_EQ(open_service(*cxt_, kCallGid, kCallSvc), 0);
    e_->call_trc_depth_max = 100;
    e_->call_trc_limit = 3600 * kSecond;
    for (int i = 0; i < 51; ++i) ASSERT_EQ(call_start("deep"), 0) << i;
    EXPECT_EQ(call_start("deep"), VARNIX_RC_CALL_DEPTH);
    EXPECT_EQ(levels(), "lvl 51 depth 52 calls 52");
    for (int i = 0; i < 51; ++i) ASSERT_EQ(call_finish("deep"), VARNIX_RC_BIZ_FAST) << i;
    EXPECT_EQ(levels(), "lvl 0 depth 1 calls 52");
    EXPECT_EQ(cxt_->call_stat.biz_cnt, 51u);
    EXPECT_TRUE(log.take().empty());

    // Outside a service: depth out of range, or ended.
    ASSERT_EQ(open_service(*cxt_, kCallGid, kCallSvc), 0);
    cxt_->service_depth = 0;
    EXPECT_EQ(call_start("DBIO_x"), VARNIX_RC_SVC_DEPTH);
    EXPECT_EQ(e_->dbio_sts, 1);  // set before the check
    EXPECT_EQ(call_finish("DBIO_x"), VARNIX_RC_SVC_DEPTH);
    cxt_->service_depth = 11;
    EXPECT_EQ(call_start("f"), VARNIX_RC_SVC_DEPTH);
    cxt_->service_depth = 1;
    cxt_->log_bit = 3;
    EXPECT_EQ(call_start("f"), VARNIX_RC_NO_SERVICE);
    EXPECT_EQ(call_finish("f"), VARNIX_RC_NO_SERVICE);
    EXPECT_EQ(e_->total_call_cnt, 0);
    // Records of a class switched off are refused before anything else.
    cxt_->log_bit = 1;
    TestIpc::get().que_info().log_flag_set = get_log_flag_set("SEVBIXQ");
    EXPECT_EQ(call_start("f"), VARNIX_RC_CLASS_OFF);
    EXPECT_EQ(call_start("DBIO_x"), 0);
}

TEST_F(CallInfo, AbsentLongAndMeasuredTexts) {
    // Everything absent: empty names (none left from the call before), blank
    // header codes, the clock's date.
    ASSERT_EQ(call_start("f", "m", "s"), 0);
    sent(call_finish("f"));
    ASSERT_EQ(call_start(nullptr, nullptr, nullptr, 0, 0), 0);
    EXPECT_EQ(std::string(level(0).func_nm) + level(0).module_nm + level(0).source_nm, "");
    TRAN_LOG_MSG m = sent(TRAN_CALLINFO_F(-1, nullptr, 0, nullptr, 0, nullptr, 0, nullptr, 0, nullptr, 0, nullptr, 0,
                                          nullptr, 0, nullptr, 0, nullptr, 0, 0, 0, nullptr, 0, nullptr, 0));
    EXPECT_EQ(body_field(m, 0, 197), header_of(m, *cxt_, {'C', "", "", kCallGid, kCallSvc, "", ""}));
    EXPECT_EQ(parse_call_text(m).rest, "[METHOD][ at  (::00000){2}]#RC 0");

    // Over-long names are cut in the level; the text is cut at 350.
    const std::string func(100, 'f'), module(200, 'm'), source(300, 's'), label(400, 'L');
    ASSERT_EQ(call_start(func.c_str(), module.c_str(), source.c_str(), 1, 0), 0);
    EXPECT_EQ(std::string(level(0).func_nm), func.substr(0, 70));
    EXPECT_EQ(std::string(level(0).module_nm), module.substr(0, 70));
    EXPECT_EQ(std::string(level(0).source_nm), source.substr(0, 100));
    const int rc = TRAN_CALLINFO_F(-1, "ABCD", -1, "D", 0, nullptr, 0, nullptr, 0, "12345678", -1, "2026", -1, "0102",
                                   2, nullptr, 0, nullptr, 0, 1, 0, func.c_str(), 1, label.c_str(), 1);
    m = sent(rc);
    EXPECT_EQ(body_len(m), 548u);
    EXPECT_EQ(body_field(m, 0, 197),
              header_of(m, *cxt_, {'C', "AB", "", kCallGid, kCallSvc, "12345678", "2026     01           "}));
    const std::string text(body_field(m, 197, 350));
    EXPECT_EQ(text.back(), 'L');
    EXPECT_EQ(text.substr(text.find('[')), "[" + label.substr(0, 350 - text.find('[') - 1));
    EXPECT_EQ(body_field(m, 547, 1), " ");
}

TEST_F(CallInfo, FilteredDbioRecordsAreSuppressedByTheValidationMark) {
    TestIpc& ipc = TestIpc::get();
    ipc.que_info().svc_filtering = 1;
    kit::ServiceListing listing;
    listing.svc_id = kCallSvc;
    listing.flags = static_cast<uint8_t>(0xFF & ~VARNIX_FLAG_B);
    listing.call_trc_depth = 10;
    ASSERT_NE(kit::add_service(*ipc.collector().svc(), listing), nullptr);
    ASSERT_EQ(open_service(*cxt_, kCallGid, kCallSvc), 0);
    ASSERT_EQ(call_start("DBIO_q"), 0);
    age(*e_, 0, kSecond);
    e_->sql_rec_cnt = 2;
    EXPECT_EQ(call_finish("DBIO_q"), VARNIX_RC_FILTERED);
    EXPECT_EQ(e_->dbio_skip, 'y');
    EXPECT_EQ(e_->sql_rec_cnt, 2);  // no record, so no SQL texts either
    EXPECT_EQ(levels(), "lvl 0 depth 0 calls 1");
    // Measured and summed all the same.
    EXPECT_GE(e_->call_elapsed_sum, kSecond);
    EXPECT_EQ(e_->call_elapsed_sum, level(0).dbio_sum);
    EXPECT_EQ(cxt_->call_stat.dbio_cnt, 1u);
    EXPECT_EQ(TestIpc::get().collector().drain(), 0);
    // BIZCALL records of the service still go.
    ASSERT_EQ(call_start("biz_ok"), 0);
    EXPECT_EQ(finished("biz_ok").level, 1);
}

}  // namespace
}  // namespace varnix::test
