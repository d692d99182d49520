// Context setters, against the test binary's collector.
#include <gtest/gtest.h>
#include <sys/time.h>

#include <climits>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include "core/clock.h"
#include "support/tracing.h"

namespace varnix::test {
namespace {

constexpr char kGid[] = "GID-OF-THE-OPEN-SERVICE-00000032";
constexpr char kSvc[] = "SETTER-SVC-00016";
constexpr char kEvtCd[] = "EVT-CD-00012";

int64_t usec(const timeval& tv) { return tv.tv_sec * 1'000'000LL + tv.tv_usec; }

timeval now() {
    timeval tv{};
    gettimeofday(&tv, nullptr);
    return tv;
}

int32_t sqlca(int64_t code, const char* text, int32_t line) { return TRAN_SET_SQLCA_INFO(-1, code, text, line); }

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
        EXPECT_EQ(TestIpc::get().collector().drain(), 0) << "records nobody looked at";
    }

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
    // A record of the open service, sent by this thread with every argument
    // absent: its header is checked, the rest of its `size` bytes returned.
    std::string sent(char type, int size) {
        TRAN_LOG_MSG m = received(queue_of_gid(kGid));
        EXPECT_EQ(body_len(m), static_cast<uint32_t>(size));
        EXPECT_EQ(body_field(m, 0, 197), header_of(m, *cxt_, {type, "", "", kGid, kSvc, "", ""}));
        return std::string(body_field(m, 197, size - 197));
    }
    std::vector<int32_t> fetch_figures() const {
        return {e_->fetch_cnt, e_->fetch_rows_sum, e_->fetch_time_sum,
                e_->fetch_last[0], e_->fetch_last[1], e_->fetch_last[2]};
    }
};

TEST_F(TranSet, SettersOutsideAService) {
    const timeval before = now();
    EXPECT_EQ(TRAN_SET_TIME(-1), 0);
    EXPECT_GE(usec(e_->preset_start_tv), usec(before));
    EXPECT_LE(usec(e_->preset_start_tv), usec(now()));

    // The one-at-a-time hash of the whole text, worked out apart.
    EXPECT_EQ(static_cast<uint32_t>(TRAN_GET_HASH_CODE(-1, 7, 99, "00004321140001234567890")), 0x64A118D5u);
    EXPECT_EQ(TRAN_GET_HASH_CODE(0, 0, 0, nullptr), 0);
    EXPECT_EQ(TRAN_GET_HASH_CODE(0, 0, 0, ""), 0);
    EXPECT_EQ(TRAN_SET_DBIO_STS(-1, 0x1FE), 0);
    EXPECT_EQ(e_->dbio_sts, 0xFE);

    // Fetch figures add up and wrap at 32 bits.
    for (int i = 0; i < 3; ++i) EXPECT_EQ(TRAN_SET_FETCH_INFO(-1, 10, 1500, 77), 0);
    EXPECT_EQ(fetch_figures(), (std::vector<int32_t>{3, 30, 4500, 10, 1500, 77}));
    e_->fetch_rows_sum = INT32_MAX;
    e_->fetch_time_sum = static_cast<int32_t>(0xFFFFFFF0u);
    EXPECT_EQ(TRAN_SET_FETCH_INFO(-1, 2, 0x100000020LL, -5), 0);
    EXPECT_EQ(fetch_figures(), (std::vector<int32_t>{4, INT32_MIN + 1, 0x10, 2, 0x20, -5}));

    e_->sql_trc_limit = 500;
    EXPECT_EQ(TRAN_CHECK_SQL_TIME(-1, 499), -1);
    EXPECT_EQ(TRAN_CHECK_SQL_TIME(-1, 500), 0);
    e_->sql_trc_limit = -1;
    EXPECT_EQ(TRAN_CHECK_SQL_TIME(-1, INT64_MIN), -1);
    EXPECT_EQ(TRAN_CHECK_SQL_TIME(-1, 0), 0);

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
    stop_tracing();
    EXPECT_EQ(TRAN_SET_TIME(-1), VARNIX_RC_NOT_INIT);
    EXPECT_EQ(TRAN_CHECK_SQL_TIME(-1, 0), VARNIX_RC_NOT_INIT);
    e_ = nullptr;  // detached with the table
}

TEST_F(TranSet, SqlcaActsInADbioCallAndRaisesEvent1810) {
    EXPECT_EQ(sqlca(-1, "x", 1), VARNIX_RC_SVC_DEPTH);
    open_service();
    cxt_->service_depth = 11;
    EXPECT_EQ(sqlca(-1, "x", 1), VARNIX_RC_SVC_DEPTH);
    cxt_->service_depth = 1;
    EXPECT_EQ(sqlca(-1, "x", 1), VARNIX_RC_CALL_DEPTH);
    // The innermost open call is a BIZCALL: nothing changes.
    open_call('C', "biz_outer");
    EXPECT_EQ(sqlca(-1, "x", 1), 0);
    EXPECT_EQ(e_->sql_code, 9999);
    EXPECT_EQ(e_->sql_err_msg[0], '\0');

    // Inside a DBIO call: "no data" and success replace only the unset mark.
    open_call('B', "DBIO_SELECT_ACCOUNT", 2);
    EXPECT_EQ(sqlca(1403, "no data", 1), 0);
    EXPECT_EQ(sqlca(0, nullptr, 1), 0);
    EXPECT_EQ(e_->sql_code, 1403);
    e_->sql_code = 9999;
    EXPECT_EQ(sqlca(0, nullptr, 1), 0);
    EXPECT_EQ(e_->sql_code, 0);
    EXPECT_EQ(e_->sql_err_msg[0], '\0');

    // An error is kept and raises the event; success does not undo it.
    EXPECT_EQ(sqlca(-1, "ORA-00001: unique constraint violated", 321), 0);
    EXPECT_EQ(std::string(e_->sql_err_msg, sizeof e_->sql_err_msg),
              std::string("ORA-00001: unique constraint violated") + std::string(101 - 37, '\0'));
    const std::string head = std::string("1810 ") + kEvtCd + "      ";
    EXPECT_EQ(sent('V', 733),
              head + padded("ORA에러발생, [DBIO_SELECT_ACCOUNT:321] SQLCODE(-1) ORA-00001: unique constraint violated",
                            512) + " ");
    EXPECT_EQ(sqlca(0, nullptr, 1), 0);
    EXPECT_EQ(e_->sql_code, -1);

    // 100 characters of the text are kept, without a terminator; the line
    // is 16-bit signed, the code 64-bit; no text counts as empty.
    e_->sql_err_msg[100] = 'Z';
    EXPECT_EQ(sqlca(-2147483649LL, std::string(150, 'm').c_str(), -7), 0);
    EXPECT_EQ(std::string(e_->sql_err_msg, 101), std::string(100, 'm') + "Z");
    EXPECT_EQ(sent('V', 733),
              head + padded("ORA에러발생, [DBIO_SELECT_ACCOUNT:-7] SQLCODE(-2147483649) " + std::string(150, 'm'), 512) +
                  " ");
    EXPECT_EQ(sqlca(-3, nullptr, 5), 0);
    EXPECT_EQ(std::string(e_->sql_err_msg, 101), std::string(100, '\0') + "Z");
    EXPECT_EQ(sent('V', 733), head + padded("ORA에러발생, [DBIO_SELECT_ACCOUNT:5] SQLCODE(-3) ", 512) + " ");

    // With events switched off the code is still kept; the setter succeeds.
    TestIpc::get().que_info().log_flag_set = get_log_flag_set("SEBCIXQ");
    EXPECT_EQ(sqlca(-942, "table missing", 9), 0);
    EXPECT_EQ(e_->sql_code, -942);
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

// The time-out notice: the seconds since `start`, read on the clock the
// notice reads (finer than time()) just before and after the setter.
std::string timeout_text(long elapsed, const std::string& tail) {
    return padded("TPSVCTIMEOUT(tpsvctimeout call)이 감지되었습니다.(경과시간 " + std::to_string(elapsed) +
                      " sec) [SETTER-SVC-00016]" + tail,
                  350) +
           " ";
}

TEST_F(TranSet, ServiceTimeoutNoticeInACallThenOnlyTheSettersWork) {
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
    const std::string tail = fmt("[#2-B7] DBIO_SELECT at acct_mod (acct.pc::00042)[%02d:%02d:%02d.123456]", tm.tm_hour,
                                 tm.tm_min, tm.tm_sec);

    const time_t before = clock_now().tv_sec;
    EXPECT_EQ(TRAN_SET_SVCTIMEOUT(-1), 0);
    const time_t after = clock_now().tv_sec;
    const std::string text = sent('I', 548);
    EXPECT_TRUE(text == timeout_text(before - start, tail) || text == timeout_text(after - start, tail)) << text;
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
    EXPECT_EQ(sqlca(-1, "after time-out", 1), 0);
    EXPECT_EQ(e_->sql_code, -1);
    EXPECT_EQ(TRAN_SET_SVCTIMEOUT(-1), 0);
}

TEST_F(TranSet, ServiceTimeoutOutsideACallCountsFromTheServiceStart) {
    open_service();
    const time_t start = std::time(nullptr) - 5;
    e_->svc_start_tv = timeval{start, 0};
    const time_t before = clock_now().tv_sec;
    EXPECT_EQ(TRAN_SET_SVCTIMEOUT(-1), 0);
    const time_t after = clock_now().tv_sec;
    const std::string text = sent('I', 548);
    EXPECT_TRUE(text == timeout_text(before - start, "") || text == timeout_text(after - start, "")) << text;
}

}  // namespace
}  // namespace varnix::test
