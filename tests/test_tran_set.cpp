// Context setters, against the test binary's collector.
#include <gtest/gtest.h>
#include <sys/time.h>
#include <unistd.h>

#include <climits>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <string>

#include "context/hash.h"
#include "core/clock.h"
#include "core/gvar.h"
#include "support/tracing.h"

namespace varnix::test {
namespace {

constexpr char kGid[] = "GID-OF-THE-OPEN-SERVICE-00000032";
constexpr char kSvc[] = "SETTER-SVC-00016";
constexpr char kEvtCd[] = "EVT-CD-00012";
constexpr uint64_t kTidModulus = 1'000'000'000'000'000ULL;

int64_t usec(const timeval& tv) { return tv.tv_sec * 1'000'000LL + tv.tv_usec; }

timeval now() {
    timeval tv{};
    gettimeofday(&tv, nullptr);
    return tv;
}

class TranSet : public TracedThread {
protected:
    void SetUp() override {
        TracedThread::SetUp();
        ASSERT_EQ(gvar.svctimeout_mark.load(), 0);  // an earlier test's time-out ended with its initialization
    }
    void TearDown() override {
        // The collector's release: the next test registers a fresh entry.
        if (e_) e_->ptrc_state = VARNIX_PTRC_RELEASE_ASKED;
        TracedThread::TearDown();
        collector().drain();
    }
    kit::Collector& collector() { return TestIpc::get().collector(); }

    // The state TRAN_START leaves for an outermost service: depth 1, a
    // started service (log_bit 1), level 1 with GID, service id and event
    // code, and the service id in the process-thread entry.
    void open_service() {
        cxt_->service_depth = 1;
        cxt_->log_bit = 1;
        SvcLevel& level = cxt_->svc_stack[0];
        std::memcpy(level.gid, kGid, sizeof level.gid);
        std::memcpy(level.svc_id, kSvc, sizeof level.svc_id);
        std::memcpy(level.evt_cd, kEvtCd, sizeof level.evt_cd);
        std::memcpy(e_->main_svc_id, kSvc, sizeof e_->main_svc_id);
    }
    // The state TRAN_CALLINFO_S leaves for one more traced call: the next
    // level filled (kind 'B' DBIO or 'C' BIZCALL, started now), trc_lvl
    // raised, sql_code 9999.
    CALL_LVL& open_call(char kind, const char* func, int32_t seq = 1) {
        CALL_LVL& c = e_->call_lvl[e_->trc_lvl];
        c = CALL_LVL{};
        c.call_kind = kind;
        c.call_seq = seq;
        std::snprintf(c.func_nm, sizeof c.func_nm, "%s", func);
        c.start_tv = now();
        ++e_->trc_lvl;
        e_->sql_code = 9999;
        return c;
    }

    // A record of the open service, from the queue its GID picks.
    TRAN_LOG_MSG received() {
        TRAN_LOG_MSG m{};
        const int q = queue_of_gid(kGid);
        EXPECT_EQ(collector().receive(m, q), q);
        return m;
    }
    // The 197-byte header of a record of the open service sent by this
    // thread with every argument absent; date and time are the record's own
    // once they prove to be digits.
    std::string header_of(char type, const TRAN_LOG_MSG& m) {
        std::string date_time(body_field(m, 175, 22));
        EXPECT_EQ(date_time.find_first_not_of("0123456789", 0), 8u);
        EXPECT_EQ(date_time.find_first_not_of("0123456789", 9), 21u);
        char ids[64];
        std::snprintf(ids, sizeof ids, "%08d %.*lu %.*d %.*d ", static_cast<int>(getpid()), 15,
                      static_cast<unsigned long>(cxt_->tid % kTidModulus), 5, cxt_->idx, 5,
                      static_cast<int>(e_->pidx));
        return std::string(1, type) + " " + "   " + "  " + kGid + " " + padded(gvar.proc_nm, 15) + " " + kSvc + " " +
               padded(gvar.host_name, 64) + " " + ids + date_time;
    }
};

TEST_F(TranSet, PresetTimeAndSqlTimeThreshold) {
    timeval before = now();
    EXPECT_EQ(TRAN_SET_TIME(-1), 0);
    timeval after = now();
    EXPECT_GE(usec(e_->preset_start_tv), usec(before));
    EXPECT_LE(usec(e_->preset_start_tv), usec(after));

    // Checked for the library state, never for the record classes.
    TestIpc::get().que_info().log_flag_set = 0;
    EXPECT_EQ(TRAN_EVENT(-1, nullptr, 0, nullptr, 0, nullptr, 0, nullptr, 0, nullptr, 0, nullptr, 0, nullptr, 0,
                         nullptr, 0, nullptr, 0, nullptr, 0, nullptr, 0),
              VARNIX_RC_CLASS_OFF);
    EXPECT_EQ(TRAN_SET_TIME(-1), 0);
    TestIpc::get().que_info().magic_code = 0;
    e_->preset_start_tv = timeval{};
    EXPECT_EQ(TRAN_SET_TIME(-1), VARNIX_RC_BAD_MAGIC);
    EXPECT_EQ(usec(e_->preset_start_tv), 0);

    e_->sql_trc_limit = 500;
    EXPECT_EQ(TRAN_CHECK_SQL_TIME(-1, 499), -1);
    EXPECT_EQ(TRAN_CHECK_SQL_TIME(-1, 500), 0);
    EXPECT_EQ(TRAN_CHECK_SQL_TIME(-1, 501), 0);
    e_->sql_trc_limit = -1;
    EXPECT_EQ(TRAN_CHECK_SQL_TIME(-1, INT64_MIN), -1);
    EXPECT_EQ(TRAN_CHECK_SQL_TIME(-1, 0), 0);

    stop_tracing();
    EXPECT_EQ(TRAN_SET_TIME(-1), VARNIX_RC_NOT_INIT);
    EXPECT_EQ(TRAN_CHECK_SQL_TIME(-1, 0), VARNIX_RC_NOT_INIT);
    e_ = nullptr;  // detached with the table
}

TEST_F(TranSet, HashCodeAndDbioStatus) {
    const char* text = "SVC0001-0123456789";
    EXPECT_EQ(static_cast<uint32_t>(TRAN_GET_HASH_CODE(-1, 7, 99, text)),
              get_hash_code(text, static_cast<int>(std::strlen(text))));
    EXPECT_EQ(static_cast<uint32_t>(TRAN_GET_HASH_CODE(0, 0, 0, "a")), get_hash_code("a", 1));
    EXPECT_EQ(TRAN_GET_HASH_CODE(0, 0, 0, nullptr), 0);
    EXPECT_EQ(TRAN_GET_HASH_CODE(0, 0, 0, ""), 0);

    EXPECT_EQ(TRAN_SET_DBIO_STS(-1, 0x1FE), 0);
    EXPECT_EQ(e_->dbio_sts, 0xFE);
    EXPECT_EQ(TRAN_SET_DBIO_STS(-1, 0), 0);
    EXPECT_EQ(e_->dbio_sts, 0);
}

TEST_F(TranSet, SqlcaNeedsAServiceAndActsOnlyInADbioCall) {
    EXPECT_EQ(TRAN_SET_SQLCA_INFO(-1, -1, "x", 1), VARNIX_RC_SVC_DEPTH);
    open_service();
    cxt_->service_depth = 11;
    EXPECT_EQ(TRAN_SET_SQLCA_INFO(-1, -1, "x", 1), VARNIX_RC_SVC_DEPTH);
    cxt_->service_depth = 1;
    EXPECT_EQ(TRAN_SET_SQLCA_INFO(-1, -1, "x", 1), VARNIX_RC_CALL_DEPTH);

    // The innermost open call is a BIZCALL: nothing changes.
    open_call('C', "biz_outer");
    EXPECT_EQ(TRAN_SET_SQLCA_INFO(-1, -1, "x", 1), 0);
    EXPECT_EQ(e_->sql_code, 9999);
    EXPECT_EQ(e_->sql_err_msg[0], '\0');

    // Inside a DBIO call: "no data" and success replace only the unset mark.
    open_call('B', "DBIO_FETCH", 2);
    EXPECT_EQ(TRAN_SET_SQLCA_INFO(-1, 1403, "no data", 1), 0);
    EXPECT_EQ(e_->sql_code, 1403);
    EXPECT_EQ(TRAN_SET_SQLCA_INFO(-1, 0, nullptr, 1), 0);
    EXPECT_EQ(e_->sql_code, 1403);
    e_->sql_code = 9999;
    EXPECT_EQ(TRAN_SET_SQLCA_INFO(-1, 0, nullptr, 1), 0);
    EXPECT_EQ(e_->sql_code, 0);
    EXPECT_EQ(e_->sql_err_msg[0], '\0');
    EXPECT_EQ(collector().drain(), 0);
}

TEST_F(TranSet, SqlErrorInADbioCallRaisesEvent1810) {
    open_service();
    open_call('C', "biz_outer");
    open_call('B', "DBIO_SELECT_ACCOUNT", 2);
    EXPECT_EQ(TRAN_SET_SQLCA_INFO(-1, -1, "ORA-00001: unique constraint violated", 321), 0);
    EXPECT_EQ(e_->sql_code, -1);
    EXPECT_EQ(std::string(e_->sql_err_msg, sizeof e_->sql_err_msg),
              std::string("ORA-00001: unique constraint violated") + std::string(101 - 37, '\0'));
    TRAN_LOG_MSG m = received();
    EXPECT_EQ(body_len(m), 733u);
    const std::string text = "ORA에러발생, [DBIO_SELECT_ACCOUNT:321] SQLCODE(-1) ORA-00001: unique constraint violated";
    EXPECT_EQ(body_field(m, 0, 733),
              header_of('V', m) + "1810 " + kEvtCd + " " + "    " + " " + padded(text, 512) + " ");
    EXPECT_EQ(collector().drain(), 0);

    // An error sticks until the next call start; success does not undo it.
    EXPECT_EQ(TRAN_SET_SQLCA_INFO(-1, 0, nullptr, 1), 0);
    EXPECT_EQ(e_->sql_code, -1);

    // 100 characters of the text are kept, without a terminator; the line
    // is 16-bit signed, the code 64-bit.
    e_->sql_err_msg[100] = 'Z';
    EXPECT_EQ(TRAN_SET_SQLCA_INFO(-1, -2147483649LL, std::string(150, 'm').c_str(), -7), 0);
    EXPECT_EQ(std::string(e_->sql_err_msg, 101), std::string(100, 'm') + "Z");
    m = received();
    EXPECT_EQ(body_field(m, 220, 513),
              padded("ORA에러발생, [DBIO_SELECT_ACCOUNT:-7] SQLCODE(-2147483649) " + std::string(150, 'm'), 512) +
                  " ");

    // No text counts as empty.
    EXPECT_EQ(TRAN_SET_SQLCA_INFO(-1, -3, nullptr, 5), 0);
    EXPECT_EQ(std::string(e_->sql_err_msg, 101), std::string(100, '\0') + "Z");
    m = received();
    EXPECT_EQ(body_field(m, 220, 513), padded("ORA에러발생, [DBIO_SELECT_ACCOUNT:5] SQLCODE(-3) ", 512) + " ");

    // With events switched off the code is still kept; the setter succeeds.
    TestIpc::get().que_info().log_flag_set = get_log_flag_set("SEBCIXQ");
    EXPECT_EQ(TRAN_SET_SQLCA_INFO(-1, -942, "table missing", 9), 0);
    EXPECT_EQ(e_->sql_code, -942);
    EXPECT_EQ(collector().drain(), 0);
}

TEST_F(TranSet, FetchFiguresAddUpAndWrapAt32Bits) {
    for (int i = 0; i < 3; ++i) EXPECT_EQ(TRAN_SET_FETCH_INFO(-1, 10, 1500, 77), 0);
    EXPECT_EQ(e_->fetch_cnt, 3);
    EXPECT_EQ(e_->fetch_rows_sum, 30);
    EXPECT_EQ(e_->fetch_time_sum, 4500);
    EXPECT_EQ(e_->fetch_last[0], 10);
    EXPECT_EQ(e_->fetch_last[1], 1500);
    EXPECT_EQ(e_->fetch_last[2], 77);

    e_->fetch_rows_sum = INT32_MAX;
    e_->fetch_time_sum = static_cast<int32_t>(0xFFFFFFF0u);
    EXPECT_EQ(TRAN_SET_FETCH_INFO(-1, 2, 0x100000020LL, -5), 0);
    EXPECT_EQ(e_->fetch_rows_sum, INT32_MIN + 1);
    EXPECT_EQ(e_->fetch_time_sum, 0x10);
    EXPECT_EQ(e_->fetch_last[1], 0x20);
    EXPECT_EQ(e_->fetch_last[2], -5);
    EXPECT_EQ(e_->fetch_cnt, 4);
}

TEST_F(TranSet, DbConnNamesReachTheEntriesOfTheNextInitialization) {
    struct Restore {
        ~Restore() {
            init_db_user[0] = '\0';
            init_db_sid[0] = '\0';
        }
    } restore;
    EXPECT_EQ(TRAN_SET_DBCONN_INFO(-1, "SCOTT_USER_LONG", "ORCL"), 0);
    EXPECT_STREQ(init_db_user, "SCOTT_USER");
    EXPECT_STREQ(init_db_sid, "ORCL");
    EXPECT_EQ(TRAN_SET_DBCONN_INFO(-1, nullptr, "PROD_SID_12"), 0);
    EXPECT_STREQ(init_db_user, "SCOTT_USER");
    EXPECT_STREQ(init_db_sid, "PROD_SID_1");
    EXPECT_STREQ(e_->db_user, "");  // the entry took the names of its own initialization

    e_->ptrc_state = VARNIX_PTRC_RELEASE_ASKED;
    ASSERT_EQ(start_tracing(), 0);
    ASSERT_EQ(get_mtr_cxt_var(-1, &cxt_), 0);
    e_ = cxt_->ptrc;
    ASSERT_NE(e_, nullptr);
    EXPECT_EQ(std::string(e_->db_user, 11), std::string("SCOTT_USER") + '\0');
    EXPECT_EQ(std::string(e_->db_sid, 11), std::string("PROD_SID_1") + '\0');
}

TEST_F(TranSet, ServiceTimeoutNoticeThenOnlyTheSettersWork) {
    open_service();
    open_call('C', "biz_outer");
    CALL_LVL& call = open_call('B', "DBIO_SELECT", 7);
    std::snprintf(call.module_nm, sizeof call.module_nm, "acct_mod");
    std::snprintf(call.source_nm, sizeof call.source_nm, "acct.pc");
    call.line_no = 42;
    const time_t start = std::time(nullptr) - 3;
    call.start_tv = timeval{start, 123456};
    std::tm tm{};
    ASSERT_NE(localtime_r(&start, &tm), nullptr);
    auto notice = [&](long elapsed) {
        char text[512];
        std::snprintf(text, sizeof text,
                      "TPSVCTIMEOUT(tpsvctimeout call)이 감지되었습니다.(경과시간 %ld sec) [SETTER-SVC-00016][#2-B7] "
                      "DBIO_SELECT at acct_mod (acct.pc::00042)[%02d:%02d:%02d.123456]",
                      elapsed, tm.tm_hour, tm.tm_min, tm.tm_sec);
        return padded(text, 350) + " ";
    };

    const time_t before = clock_now().tv_sec;  // the clock the notice reads, finer than time()
    EXPECT_EQ(TRAN_SET_SVCTIMEOUT(-1), 0);
    const time_t after = clock_now().tv_sec;
    TRAN_LOG_MSG m = received();
    EXPECT_EQ(body_len(m), 548u);
    EXPECT_EQ(body_field(m, 0, 197), header_of('I', m));
    std::string text(body_field(m, 197, 351));
    EXPECT_TRUE(text == notice(before - start) || text == notice(after - start)) << text;
    EXPECT_EQ(e_->svctimeout_flag, 1);
    EXPECT_EQ(gvar.svctimeout_mark.load(), 1);

    // Every entry that checks the library state now refuses.
    EXPECT_EQ(TRAN_EVENT(-1, nullptr, 0, nullptr, 0, nullptr, 0, nullptr, 0, nullptr, 0, nullptr, 0, nullptr, 0,
                         nullptr, 0, nullptr, 0, nullptr, 0, "e", -1),
              VARNIX_RC_SVC_TIMEOUT);
    EXPECT_EQ(TRAN_ERRINFO(-1, nullptr, 0, nullptr, 0, nullptr, 0, nullptr, 0, nullptr, 0, nullptr, 0, nullptr, 0,
                           nullptr, 0, nullptr, 0, nullptr, 0, "e", -1),
              VARNIX_RC_SVC_TIMEOUT);
    EXPECT_EQ(TRAN_INFO(-1, nullptr, 0, nullptr, 0, nullptr, 0, kSvc, -1, nullptr, 0, nullptr, 0, nullptr, 0, "i", -1),
              VARNIX_RC_SVC_TIMEOUT);
    EXPECT_EQ(TRAN_INFO_EX(-1, nullptr, 0, nullptr, 0, nullptr, 0, kSvc, -1, nullptr, 0, nullptr, 0, nullptr, 0,
                           "CD01", -1, "x", -1),
              VARNIX_RC_SVC_TIMEOUT);
    EXPECT_EQ(TRAN_SET_TIME(-1), VARNIX_RC_SVC_TIMEOUT);

    // The setters go on; the SQL error event and a second notice are refused
    // on the way out, so the notice stays recorded once.
    EXPECT_EQ(TRAN_SET_DBIO_STS(-1, 3), 0);
    EXPECT_EQ(e_->dbio_sts, 3);
    EXPECT_EQ(TRAN_SET_FETCH_INFO(-1, 4, 100, 1), 0);
    EXPECT_EQ(e_->fetch_cnt, 1);
    EXPECT_EQ(TRAN_CHECK_SQL_TIME(-1, -1), -1);
    EXPECT_EQ(TRAN_SET_SQLCA_INFO(-1, -1, "after time-out", 1), 0);
    EXPECT_EQ(e_->sql_code, -1);
    EXPECT_EQ(TRAN_SET_SVCTIMEOUT(-1), 0);
    EXPECT_EQ(collector().drain(), 0);
}

TEST_F(TranSet, ServiceTimeoutOutsideACallCountsFromTheServiceStart) {
    open_service();
    const time_t start = std::time(nullptr) - 5;
    e_->svc_start_tv = timeval{start, 0};
    const time_t before = clock_now().tv_sec;  // the clock the notice reads, finer than time()
    EXPECT_EQ(TRAN_SET_SVCTIMEOUT(-1), 0);
    const time_t after = clock_now().tv_sec;
    auto notice = [](long elapsed) {
        return padded("TPSVCTIMEOUT(tpsvctimeout call)이 감지되었습니다.(경과시간 " + std::to_string(elapsed) +
                          " sec) [SETTER-SVC-00016]",
                      350) +
               " ";
    };
    TRAN_LOG_MSG m = received();
    std::string text(body_field(m, 197, 351));
    EXPECT_TRUE(text == notice(before - start) || text == notice(after - start)) << text;
}

}  // namespace
}  // namespace varnix::test
