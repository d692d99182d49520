// Call tracing: the level stack, the record texts, depth and nesting rules, limits and forcing.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <tuple>
#include <vector>

#include "collector/service_table.h"
#include "core/gvar.h"
#include "support/calls.h"

namespace varnix::test {
namespace {

using Lines = std::vector<std::string>;
constexpr int64_t kSecond = 1000000;

class CallInfo : public InService {
protected:
    // Opens a call and reports the kind it got.
    char kind_of(const char* func) {
        if (call_start(func) != 0) return '?';
        const char kind = level(e_->trc_lvl - 1).call_kind;
        call_finish(func);
        return kind;
    }
    // The body of the call record just closed at the outermost level: a BIZCALL's time is all its own, a DBIO
    // call's is not split.
    std::string record_of(const TRAN_LOG_MSG& m, bool biz, const std::string& rest) const {
        const CALL_LVL& l = level(0);
        const std::string all = secs_text(usec_of(l.end_tv) - usec_of(l.start_tv)), zero = "0.000000";
        const std::string head = header_of(m, *cxt_, {biz ? 'C' : 'B', "CL", "D", kCallGid, kCallSvc, "",
                                                      std::string(kFinishDate) + " " + kFinishTime + " "});
        return head + padded("1,10," + all + "," + (biz ? all : zero) + "," + zero + "," + zero + "," +
                                 secs_text(l.start_tv) + "," + secs_text(l.end_tv) + "," + rest,
                             350) + " ";
    }
    // Starts a call that has run `us` already.
    void open_call(const char* func, int64_t us = 0) {
        ASSERT_EQ(call_start(func), 0) << func;
        age(*e_, e_->trc_lvl - 1, us);
    }
};

// A DBIO call finishing first at its level, a second one, then a BIZCALL.
TEST_F(CallInfo, RecordBytesOfBothKindsAndLevelState) {
    const CALL_LVL& l = level(0);
    std::memcpy(e_->db_user, "scott", 6), std::memcpy(e_->db_sid, "ORCL", 5);
    ASSERT_EQ(call_start("DBIO_select", "m", "dbio.pc", 3), 0);
    e_->sql_code = -1403;
    e_->fetch_last[0] = 7, e_->fetch_last[1] = 12345, e_->fetch_last[2] = 88;
    TRAN_LOG_MSG m = sent(call_finish("DBIO_select", -2, nullptr, nullptr, nullptr, 5));
    EXPECT_EQ(body_field(m, 0, 548), record_of(m, false, "[][DBIO_select at  (dbio.pc::00005){1}]#SQLCODE -1403, "
                                                         "#RC -2 (line 88) fetch 7 rows (12.345 ms) DB scott/ORCL"));
    // The next start clears the SQL and fetch state; a later finish at the level has no blank before the time.
    ASSERT_EQ(call_start("DBIO_update"), 0);
    EXPECT_EQ(e_->fetch_last[0] + e_->fetch_last[1] + e_->fetch_last[2], 0);
    e_->fetch_last[1] = 12005, e_->fetch_last[2] = 9;
    EXPECT_EQ(finished("DBIO_update", -7).rest,
              "[][DBIO_update at fin_mod (fin.c::00042){2}]#SQLCODE 9999, #RC -7 (line 9) fetch 0 rows(12.5 ms) DB "
              "scott/ORCL");

    ASSERT_EQ(call_start("biz_func", "start_mod", "start.c", 7, 0), 0);
    EXPECT_EQ(levels() + fmt(" %d", e_->dbio_sts), "lvl 1 depth 1 calls 3 0");
    age(*e_, 0, 2 * kSecond + 250000);
    m = sent(call_finish("biz_func", -3, "SVC", "fin_mod", "fin.c", 42));
    EXPECT_EQ(body_field(m, 0, 548), record_of(m, true, "[SVC][biz_func at fin_mod (fin.c::00042){3}]#RC -3"));
    EXPECT_EQ(levels() + fmt(" %d %d", l.rc, e_->last_fin_lvl), "lvl 0 depth 0 calls 3 -3 1");
}

TEST_F(CallInfo, DbioSignatureDecidesTheKind) {
    e_->call_trc_limit = e_->dbio_trc_limit = 3600 * kSecond;  // no records
    // Configured "0 DBIO_": the name starts with the pattern ("DBIO" is shorter than it).  Then "2 DBIO_SELEC":
    // at offset 2, only 7 characters compared; -1: nothing is DBIO; an empty pattern: every name, also one shorter
    // than the offset.  "1 BI" and "6 BI" end within a name's first 8 bytes, "2 DBIO_SELEC" beyond them; the bytes after a
    // name's end do not count even where they hold the pattern.
    const std::tuple<int, const char*, const char*, char> cases[] = {
        {0, nullptr, "DBIO_select", 'B'}, {0, nullptr, "xDBIO_select", 'C'},      {0, nullptr, "DBIO", 'C'},
        {0, nullptr, nullptr, 'C'},       {2, "DBIO_SELEC", "xxDBIO_SExyz", 'B'}, {2, nullptr, "xxDBIO_SxLEC", 'C'},
        {2, nullptr, "xxD", 'C'},         {-1, nullptr, "xxDBIO_SELEC", 'C'},     {0, "", "anything", 'B'},
        {3, nullptr, "ab", 'B'},          {1, "BI", "DBIx", 'B'},                 {1, nullptr, "DB", 'C'},
        {1, nullptr, "DCI", 'C'},         {6, nullptr, "abcdefBI", 'B'},          {6, nullptr, "abcdeBI", 'C'},
        {2, nullptr, "a\0BI", 'C'}};
    for (const auto& [no, pattern, func, kind] : cases) {
        gvar.dbio_func_no = no;
        if (pattern) {
            std::memset(gvar.dbio_func_nm, 0, sizeof gvar.dbio_func_nm);
            std::memcpy(gvar.dbio_func_nm, pattern, std::strlen(pattern));
        }
        gvar.dbio_signature = compile_dbio_signature(no, gvar.dbio_func_nm);
        EXPECT_EQ(kind_of(func), kind) << no << " " << (func ? func : "null");
    }
}

// CALL_TRC_DEPTH 3: a fourth nested BIZCALL is neither stacked nor recorded nor counted; a DBIO call below it is.
TEST_F(CallInfo, CallsDeeperThanTheDepthLimitAreNotTraced) {
    TestIpc::get().que_info().call_trc_depth = 3;
    ASSERT_EQ(open_service(*cxt_, kCallGid, kCallSvc), 0);
    for (const char* f : {"biz_A", "biz_B", "biz_C", "biz_D"}) open_call(f);
    open_call("DBIO_x", kSecond);
    EXPECT_EQ(levels(), "lvl 4 depth 5 calls 5");
    const CallText x = finished("DBIO_x");
    EXPECT_EQ(call_finish("biz_D"), VARNIX_RC_NOT_TRACED);
    EXPECT_EQ(levels(), "lvl 3 depth 3 calls 5");
    const CallText c = finished("biz_C");  // the untraced call's DBIO time is C's
    EXPECT_EQ(fmt("%d %d %d %ld", x.level, x.depth_max, c.level, c.dbio), fmt("4 3 3 %ld", x.elapsed));
    EXPECT_EQ(finished("biz_B").level + finished("biz_A").level, 3);
    const CallStat& st = cxt_->call_stat;
    EXPECT_EQ(fmt("%u %u %u", st.max_call_depth, st.biz_cnt, st.dbio_cnt), "5 3 1");
}

// Calls below their limit send nothing, unless an error return code forces a record.
TEST_F(CallInfo, LimitsAndErrorReturnCodesThatForceRecordsOncePerService) {
    TestIpc::get().que_info().fst_err_rc_set[5] = 2, TestIpc::get().que_info().fst_err_rc_set[6] = 1;
    const int64_t hour = 3600 * kSecond;
    e_->call_trc_limit = e_->dbio_trc_limit = hour;

    // Verdict 2: the failing call and every call open around it.
    for (const char* f : {"biz_A", "biz_B", "biz_C"}) open_call(f);
    EXPECT_EQ(finished("biz_C", -5).rest, "[METHOD][biz_C at fin_mod (fin.c::00042){3}]#RC -5");
    EXPECT_EQ(fmt("%d %d %d %d", level(0).force_rec, level(1).force_rec, level(2).force_rec, e_->err_rc_marked),
              "1 1 0 1");
    finished("biz_B");
    // Once per service: later failures force nothing.
    ASSERT_EQ(call_start("biz_D"), 0);
    EXPECT_EQ(call_finish("biz_D", -5), VARNIX_RC_BIZ_FAST);
    ASSERT_EQ(call_start("DBIO_E"), 0);
    e_->sql_rec_cnt = 2;  // statements kept for the call are closed all the same
    EXPECT_EQ(call_finish("DBIO_E", -6), VARNIX_RC_DBIO_FAST);
    EXPECT_EQ(e_->sql_rec_cnt, 0);
    finished("biz_A");

    // Verdict 1, in a new service: the failing call only.
    ASSERT_EQ(open_service(*cxt_, kCallGid, kCallSvc), 0);
    EXPECT_EQ(e_->err_rc_marked, 0);
    e_->call_trc_limit = e_->dbio_trc_limit = hour;
    for (const char* f : {"biz_A", "DBIO_B"}) open_call(f);
    finished("DBIO_B", -6);
    EXPECT_EQ(call_finish("biz_A"), VARNIX_RC_BIZ_FAST);

    // Start option -1: the return code becomes 99 and forces nothing.
    ASSERT_EQ(open_service(*cxt_, kCallGid, kCallSvc), 0);
    e_->call_trc_limit = hour;
    ASSERT_EQ(call_start("biz_opt", "m", "s.c", 1, -1), 0);
    EXPECT_EQ(call_finish("biz_opt", -5), VARNIX_RC_BIZ_FAST);
    EXPECT_EQ(fmt("%d %d", level(0).rc, e_->err_rc_marked), "99 0");
}

TEST_F(CallInfo, NestingAndDepthErrorsAndCallsOutsideAService) {
    LogTail log;
    ASSERT_EQ(call_start("DBIO_a"), 0);
    EXPECT_EQ(call_start("DBIO_b"), VARNIX_RC_DBIO_IN_DBIO);
    EXPECT_EQ(log.take(), Lines{"<!> log_type error, DBIO_TYPE {2-DBIO_b} can't call in DBIO_TYPE {1-DBIO_a}."});
    // The refused call's finish closes the open DBIO call's level; the refused start stays counted in the depth.
    EXPECT_EQ(finished("DBIO_b").rest.find("[][DBIO_a at "), 0u);
    EXPECT_EQ(call_finish("DBIO_a"), VARNIX_RC_CALL_DEPTH);
    EXPECT_EQ(log.take(), Lines{"<!> depth error, function(DBIO_a) call does not match the start and end."});
    EXPECT_EQ(levels(), "lvl 0 depth 1 calls 2");
    ASSERT_EQ(open_service(*cxt_, kCallGid, kCallSvc), 0);
    EXPECT_EQ(call_finish(nullptr), VARNIX_RC_CALL_DEPTH);
    e_->call_trc_depth = -5;
    EXPECT_EQ(call_start("neg_f"), VARNIX_RC_CALL_DEPTH);
    EXPECT_EQ(levels(), "lvl 0 depth -4 calls 1");
    e_->call_trc_depth = 0;
    ASSERT_EQ(call_start("f"), 0);
    e_->call_trc_depth = -1;
    EXPECT_EQ(call_finish("f"), VARNIX_RC_CALL_DEPTH);
    EXPECT_EQ(e_->trc_lvl, 1);
    EXPECT_EQ(log.take(), (Lines{"<!> depth error, function() call does not match the start and end.",
                                "<!> call_trc_depth error, function(neg_f) call.",
                                "<!> depth error, function(f) call."}));

    // 51 levels at most: the 52nd start is refused without a message.
    ASSERT_EQ(open_service(*cxt_, kCallGid, kCallSvc), 0);
    e_->call_trc_depth_max = 100;
    e_->call_trc_limit = 3600 * kSecond;
    for (int i = 0; i < 51; ++i) ASSERT_EQ(call_start("deep"), 0) << i;
    EXPECT_EQ(call_start("deep"), VARNIX_RC_CALL_DEPTH);
    EXPECT_EQ(levels(), "lvl 51 depth 52 calls 52");
    // The last level has none below: the bytes past it (in the first SQL slot)
    // are no children's time, which would make the call's own time huge.
    std::memset(e_->sql_slot[0].func_nm, 0x80, sizeof e_->sql_slot[0].func_nm);
    cxt_->call_stat = CallStat{};
    ASSERT_EQ(call_finish("deep"), VARNIX_RC_BIZ_FAST);
    EXPECT_EQ(cxt_->call_stat.biz_self_max_ms, 0);
    std::memset(e_->sql_slot[0].func_nm, 0, sizeof e_->sql_slot[0].func_nm);
    for (int i = 1; i < 51; ++i) ASSERT_EQ(call_finish("deep"), VARNIX_RC_BIZ_FAST) << i;
    EXPECT_EQ(levels(), "lvl 0 depth 1 calls 52");
    EXPECT_TRUE(log.take().empty());

    // Outside a service: depth out of range, or ended.
    ASSERT_EQ(open_service(*cxt_, kCallGid, kCallSvc), 0);
    cxt_->service_depth = 0;
    EXPECT_EQ(call_start("DBIO_x"), VARNIX_RC_SVC_DEPTH);
    EXPECT_EQ(e_->dbio_sts, 1);  // set before the check
    EXPECT_EQ(call_finish("DBIO_x"), VARNIX_RC_SVC_DEPTH);
    cxt_->service_depth = 11;
    EXPECT_EQ(call_start("f"), VARNIX_RC_SVC_DEPTH);
    cxt_->service_depth = 1, cxt_->log_bit = 3;
    EXPECT_EQ(call_start("f"), VARNIX_RC_NO_SERVICE);
    EXPECT_EQ(call_finish("f"), VARNIX_RC_NO_SERVICE);
    EXPECT_EQ(e_->total_call_cnt, 0);
    cxt_->log_bit = 1;  // records of a class switched off are refused before anything else
    TestIpc::get().que_info().log_flag_set = get_log_flag_set("SEVBIXQ");
    EXPECT_EQ(call_start("f"), VARNIX_RC_CLASS_OFF);
    EXPECT_EQ(call_start("DBIO_x"), 0);
}

// Numbers another process wrote into the entry: depth, count, times and sums
// stop at the limits of their types, in the entry and in the records.
TEST_F(CallInfo, ExtremeNumbersInTheEntrySaturate) {
    e_->call_trc_depth = INT32_MAX, e_->total_call_cnt = INT32_MAX;
    EXPECT_EQ(call_start("biz_deep"), 0);  // too deep to trace
    EXPECT_EQ(levels(), "lvl 0 depth 2147483647 calls 2147483647");
    e_->call_trc_depth = 0;
    e_->call_trc_limit = e_->dbio_trc_limit = 0;  // every call sends its record
    // A start time before any time a count of microseconds can hold.
    ASSERT_EQ(call_start("DBIO_a"), 0);
    EXPECT_EQ(level(0).call_seq, INT32_MAX);
    e_->call_lvl[0].start_tv = timeval{0, INT64_MIN};
    EXPECT_EQ(finished("DBIO_a").elapsed, INT64_MAX);
    open_call("DBIO_b", kSecond);  // a later DBIO call at the level adds to its sums
    e_->call_lvl[0].elapsed_sum = e_->call_lvl[0].dbio_sum = e_->call_elapsed_sum = INT64_MAX - 1;
    finished("DBIO_b");
    EXPECT_EQ(std::tuple(level(0).elapsed_sum, level(0).dbio_sum, e_->call_elapsed_sum),
              std::tuple(INT64_MAX, INT64_MAX, INT64_MAX));
    // Children's sums at the bottom of the range: the BIZCALL's own time stops at the top.
    ASSERT_EQ(call_start("biz_outer"), 0);
    ASSERT_EQ(call_start("DBIO_c"), 0);
    finished("DBIO_c");
    e_->call_lvl[1].elapsed_sum = e_->call_lvl[1].dbio_sum = INT64_MIN;
    const CallText outer = finished("biz_outer");
    EXPECT_EQ(std::tuple(outer.own, outer.called, outer.dbio, level(0).elapsed_sum),
              std::tuple(INT64_MAX, int64_t{0}, INT64_MIN, INT64_MAX));
    const CallStat& st = cxt_->call_stat;
    EXPECT_EQ(std::tuple(st.dbio_elapsed_sum, st.dbio_max_ms, st.biz_self_max_ms),
              std::tuple(INT64_MAX, INT32_MAX, INT32_MAX));
}

TEST_F(CallInfo, AbsentAndOverlongTexts) {
    // Everything absent: empty names (none left from the call before), blank header codes, the clock's date.
    ASSERT_EQ(call_start("f", "m", "s"), 0);
    sent(call_finish("f"));
    ASSERT_EQ(call_start(nullptr, nullptr, nullptr, 0, 0), 0);
    EXPECT_EQ(std::string(level(0).func_nm) + level(0).module_nm + level(0).source_nm, "");
    TRAN_LOG_MSG m = sent(TRAN_CALLINFO_F(-1, nullptr, 0, nullptr, 0, nullptr, 0, nullptr, 0, nullptr, 0, nullptr, 0,
                                          nullptr, 0, nullptr, 0, nullptr, 0, 0, 0, nullptr, 0, nullptr, 0));
    EXPECT_EQ(body_field(m, 0, 197), header_of(m, *cxt_, {'C', "", "", kCallGid, kCallSvc, "", ""}));
    EXPECT_EQ(parse_call_text(m).rest, "[METHOD][ at  (::00000){2}]#RC 0");

    const std::string func(100, 'f'), module(200, 'm'), source(300, 's'), label(400, 'L');
    ASSERT_EQ(call_start(func.c_str(), module.c_str(), source.c_str(), 1, 0), 0);
    EXPECT_EQ(fmt("%zu %zu %zu", strlen(level(0).func_nm), strlen(level(0).module_nm), strlen(level(0).source_nm)),
              "70 70 100");
    const int rc = TRAN_CALLINFO_F(-1, "ABCD", -1, "D", 0, nullptr, 0, nullptr, 0, "12345678", -1, "2026", -1, "0102",
                                   2, nullptr, 0, nullptr, 0, 1, 0, func.c_str(), 1, label.c_str(), 1);
    m = sent(rc);
    EXPECT_EQ(body_field(m, 0, 197),
              header_of(m, *cxt_, {'C', "AB", "", kCallGid, kCallSvc, "12345678", "2026     01           "}));
    const std::string text(body_field(m, 197, 351));
    EXPECT_EQ(text.substr(text.find('[')), "[" + label.substr(0, 350 - text.find('[') - 1) + " ");
}

TEST_F(CallInfo, FilteredDbioRecordsAreSuppressedByTheValidationMark) {
    TestIpc::get().que_info().svc_filtering = 1;
    const collector::ServiceListing listing{.svc_id = kCallSvc, .flags = 0xFF & ~VARNIX_FLAG_B, .call_trc_depth = 10};
    ASSERT_NE(collector::add_service(*TestIpc::get().collector().svc(), listing), nullptr);
    ASSERT_EQ(open_service(*cxt_, kCallGid, kCallSvc), 0);
    open_call("DBIO_q", kSecond);
    e_->sql_rec_cnt = 2;
    EXPECT_EQ(call_finish("DBIO_q"), VARNIX_RC_FILTERED);
    EXPECT_EQ(levels() + fmt(" %d", e_->sql_rec_cnt), "lvl 0 depth 0 calls 1 2");  // no record, so no SQL texts
    // Measured and summed all the same; BIZCALL records of the service still go.
    EXPECT_GE(e_->call_elapsed_sum, kSecond);
    EXPECT_EQ(e_->call_elapsed_sum, level(0).dbio_sum);
    open_call("biz_ok");
    finished("biz_ok");
}

}  // namespace
}  // namespace varnix::test
