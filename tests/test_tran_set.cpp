// Context setters, against the test binary's collector.
#include <gtest/gtest.h>
#include <sys/time.h>
#include <climits>
#include <cstring>
#include <ctime>
#include <string>
#include "core/clock.h"
#include "support/tracing.h"

namespace varnix::test {
namespace {

constexpr char kGid[] = "GID-OF-THE-OPEN-SERVICE-00000032";
constexpr char kSvc[] = "SETTER-SVC-00016";
constexpr char kEvtCd[] = "EVT-CD-00012";

int32_t sqlca(int64_t code, const char* text, int32_t line) { return TRAN_SET_SQLCA_INFO(-1, code, text, line); }

class TranSet : public TracedThread {
protected:
    void SetUp() override {
        TracedThread::SetUp();
        ASSERT_EQ(gvar.svctimeout_mark.load(), 0);  // an earlier test's time-out ended with its initialization
    }
    void TearDown() override {
        if (e_) e_->ptrc_state = VARNIX_PTRC_RELEASE_ASKED;  // the collector's release: next comes a fresh entry
        TracedThread::TearDown();
        EXPECT_EQ(TestIpc::get().collector().drain(), 0) << "records nobody looked at";
    }

    // The state TRAN_START leaves for an outermost service (GID, service id, event code at level 1).
    void open_service() {
        cxt_->service_depth = cxt_->log_bit = 1;
        std::memcpy(cxt_->svc_stack[0].gid, kGid, 32);
        std::memcpy(cxt_->svc_stack[0].svc_id, kSvc, 16);
        std::memcpy(cxt_->svc_stack[0].evt_cd, kEvtCd, sizeof cxt_->svc_stack[0].evt_cd);
        std::memcpy(e_->main_svc_id, kSvc, sizeof e_->main_svc_id);
    }
    // The state TRAN_CALLINFO_S leaves for one more call of `kind` started now.
    CALL_LVL& open_call(char kind, const char* func, int32_t seq = 1) {
        CALL_LVL& c = e_->call_lvl[e_->trc_lvl++];
        c = CALL_LVL{};
        c.start_tv = clock_now(), c.call_kind = kind, c.call_seq = seq;
        std::snprintf(c.func_nm, sizeof c.func_nm, "%s", func);
        e_->sql_code = 9999;
        return c;
    }
    // A record of the open service, all arguments absent: the header checked, the rest returned.
    std::string sent(char type, int size) {
        TRAN_LOG_MSG m = received(queue_of_gid(kGid));
        EXPECT_EQ(body_len(m), static_cast<uint32_t>(size));
        EXPECT_EQ(body_field(m, 0, 197), header_of(m, *cxt_, {type, "", "", kGid, kSvc, "", ""}));
        return std::string(body_field(m, 197, size - 197));
    }
    // Raises the time-out and checks its notice: the seconds since `start`, on the clock before or after the call.
    void expect_timeout_notice(time_t start, const std::string& tail) {
        const time_t before = clock_now().tv_sec;
        EXPECT_EQ(TRAN_SET_SVCTIMEOUT(-1), 0);
        const time_t after = clock_now().tv_sec;
        const std::string text = sent('I', 548), head = "TPSVCTIMEOUT(tpsvctimeout call)이 감지되었습니다.(경과시간 ";
        const auto want = [&](time_t t) {
            return padded(head + std::to_string(t - start) + " sec) [SETTER-SVC-00016]" + tail, 350) + " ";
        };
        EXPECT_TRUE(text == want(before) || text == want(after)) << text;
    }
    std::string fetch_figures() const {
        return fmt("%d %d %d %d %d %d", e_->fetch_cnt, e_->fetch_rows_sum, e_->fetch_time_sum, e_->fetch_last[0],
                   e_->fetch_last[1], e_->fetch_last[2]);
    }
};

TEST_F(TranSet, SettersOutsideACallAndTheTimeoutFromTheServiceStart) {
    // A time-out outside a call is counted from the service start.
    open_service();
    e_->svc_start_tv = timeval{std::time(nullptr) - 5, 0};
    expect_timeout_notice(e_->svc_start_tv.tv_sec, "");

    // Database names reach the entries of the next initialization (which ends the time-out).
    struct Restore {
        ~Restore() { init_db_user[0] = init_db_sid[0] = '\0'; }
    } restore;
    EXPECT_EQ(TRAN_SET_DBCONN_INFO(-1, "SCOTT_USER_LONG", "ORCL"), 0);
    EXPECT_EQ(TRAN_SET_DBCONN_INFO(-1, nullptr, "PROD_SID_12"), 0);  // no name: the one before stays
    EXPECT_EQ(std::string(init_db_user) + "/" + init_db_sid, "SCOTT_USER/PROD_SID_1");
    EXPECT_STREQ(e_->db_user, "");  // the entry took the names of its own initialization
    e_->ptrc_state = VARNIX_PTRC_RELEASE_ASKED;
    SetUp();
    EXPECT_EQ(std::string(e_->db_user, 11) + std::string(e_->db_sid, 11),
              std::string("SCOTT_USER") + '\0' + "PROD_SID_1" + '\0');
    const int64_t before = usec_of(clock_now());
    EXPECT_EQ(TRAN_SET_TIME(-1), 0);
    EXPECT_GE(usec_of(e_->preset_start_tv), before);
    // The one-at-a-time hash of the whole text, worked out apart.
    EXPECT_EQ(static_cast<uint32_t>(TRAN_GET_HASH_CODE(-1, 7, 99, "00004321140001234567890")), 0x64A118D5u);
    EXPECT_EQ(TRAN_GET_HASH_CODE(0, 0, 0, nullptr), 0);
    EXPECT_EQ(TRAN_SET_DBIO_STS(-1, 0x1FE), 0);
    EXPECT_EQ(e_->dbio_sts, 0xFE);
    // Fetch figures add up and wrap at 32 bits.
    for (int i = 0; i < 3; ++i) EXPECT_EQ(TRAN_SET_FETCH_INFO(-1, 10, 1500, 77), 0);
    EXPECT_EQ(fetch_figures(), "3 30 4500 10 1500 77");
    e_->fetch_rows_sum = INT32_MAX, e_->fetch_time_sum = static_cast<int32_t>(0xFFFFFFF0u);
    EXPECT_EQ(TRAN_SET_FETCH_INFO(-1, 2, 0x100000020LL, -5), 0);
    EXPECT_EQ(fetch_figures(), fmt("4 %d 16 2 32 -5", INT32_MIN + 1));
    e_->sql_trc_limit = 500;
    EXPECT_EQ(fmt("%d %d", TRAN_CHECK_SQL_TIME(-1, 499), TRAN_CHECK_SQL_TIME(-1, 500)), "-1 0");
    // Checked for the library state (never for the record classes).
    TestIpc::get().que_info().magic_code = 0;
    EXPECT_EQ(TRAN_SET_TIME(-1), VARNIX_RC_BAD_MAGIC);
    e_->ptrc_state = VARNIX_PTRC_RELEASE_ASKED;  // the next test registers a fresh entry
    stop_tracing();
    EXPECT_EQ(TRAN_SET_TIME(-1), VARNIX_RC_NOT_INIT);
    EXPECT_EQ(TRAN_CHECK_SQL_TIME(-1, 0), VARNIX_RC_NOT_INIT);
    e_ = nullptr;  // detached with the table
}

TEST_F(TranSet, SqlcaInADbioCallThenATimeoutThereAfterWhichOnlyTheSettersWork) {
    // No service, one too deep, no call, a BIZCALL innermost (nothing changes).
    EXPECT_EQ(sqlca(-1, "x", 1), VARNIX_RC_SVC_DEPTH);
    open_service();
    for (const auto& [depth, rc] : {std::pair{11, VARNIX_RC_SVC_DEPTH}, {1, VARNIX_RC_CALL_DEPTH}}) {
        cxt_->service_depth = depth;
        EXPECT_EQ(sqlca(-1, "x", 1), rc) << depth;
    }
    open_call('C', "biz_outer");
    EXPECT_EQ(sqlca(-1, "x", 1), 0);
    EXPECT_EQ(e_->sql_code, 9999);

    // Inside a DBIO call: "no data" and success replace only the unset mark.
    CALL_LVL& call = open_call('B', "DBIO_SELECT", 7);
    EXPECT_EQ(sqlca(1403, "no data", 1) + sqlca(0, nullptr, 1), 0);  // no code is positive
    EXPECT_EQ(e_->sql_code, 1403);
    e_->sql_code = 9999;
    EXPECT_EQ(sqlca(0, nullptr, 1), 0);
    EXPECT_EQ(e_->sql_code, 0);
    // An error is kept (100 characters, no terminator) and raises the event; success does not undo it.  The line
    // is 16-bit signed, the code 64-bit.
    const std::string head = std::string("1810 ") + kEvtCd + "      ORA에러발생, [DBIO_SELECT:";
    e_->sql_err_msg[100] = 'Z';
    EXPECT_EQ(sqlca(-2147483649LL, std::string(150, 'm').c_str(), -7), 0);
    EXPECT_EQ(std::string(e_->sql_err_msg, 101), std::string(100, 'm') + "Z");
    EXPECT_EQ(sent('V', 733), padded(head + "-7] SQLCODE(-2147483649) " + std::string(150, 'm'), 535) + " ");
    EXPECT_EQ(sqlca(0, nullptr, 1), 0);
    EXPECT_EQ(e_->sql_code, -2147483649LL);
    EXPECT_EQ(sqlca(-3, nullptr, 5), 0);  // no text counts as empty
    EXPECT_EQ(std::string(e_->sql_err_msg, 101), std::string(100, '\0') + "Z");
    EXPECT_EQ(sent('V', 733), padded(head + "5] SQLCODE(-3) ", 535) + " ");

    // A time-out in the call is counted from its start, and names it.
    std::snprintf(call.module_nm, sizeof call.module_nm, "acct_mod");
    std::snprintf(call.source_nm, sizeof call.source_nm, "acct.pc");
    const time_t start = std::time(nullptr) - 3;
    call.line_no = 42, call.start_tv = timeval{start, 123456};
    std::tm tm{};
    ASSERT_NE(localtime_r(&start, &tm), nullptr);
    expect_timeout_notice(start, fmt("[#2-B7] DBIO_SELECT at acct_mod (acct.pc::00042)[%02d:%02d:%02d.123456]",
                                     tm.tm_hour, tm.tm_min, tm.tm_sec));
    // Entries that check the library state now refuse; the other setters go on, but the SQL error event and a
    // second notice are refused on the way out, so the notice stays recorded once.
    EXPECT_EQ(TRAN_SET_TIME(-1), VARNIX_RC_SVC_TIMEOUT);
    EXPECT_EQ(TRAN_SET_DBIO_STS(-1, 3) + TRAN_SET_FETCH_INFO(-1, 4, 100, 1), 0);
    EXPECT_EQ(fmt("%d %d", e_->dbio_sts, e_->fetch_cnt), "3 1");
    EXPECT_EQ(TRAN_CHECK_SQL_TIME(-1, -1), -1);
    EXPECT_EQ(sqlca(-1, "after time-out", 1), 0);
    EXPECT_EQ(e_->sql_code, -1);
    EXPECT_EQ(TRAN_SET_SVCTIMEOUT(-1), 0);
}

}  // namespace
}  // namespace varnix::test
