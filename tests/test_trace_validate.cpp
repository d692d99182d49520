// Validation of records against the thread's state, the collector's switches
// and the service table.
#include <gtest/gtest.h>

#include <cstring>

#include "collector/service_table.h"
#include "core/gvar.h"
#include "core/status.h"
#include "record/record.h"
#include "support/tracing.h"

namespace varnix::test {
namespace {

class TraceValidate : public TracedThread {
protected:
    int validate(char type, const char* svc = "SVC-A", const char* key = nullptr, char api = kTranStartApi) {
        return trace_validate(*cxt_, type, api, cxt_->log_body, svc, -1, {key, -1});
    }
    // The verdict on each type in turn, as "0 101 ...".
    std::string verdicts(std::string_view types) {
        std::string out;
        for (char t : types) out += fmt(out.empty() ? "%d" : " %d", validate(t));
        return out;
    }
    TRAN_LOGF_QUE_INFO& sw() { return TestIpc::get().que_info(); }
    // The thread's call depth limit and call, DBIO and SQL time limits.
    std::string limits() const {
        return fmt("%d %ld %ld %ld", e_->call_trc_depth_max, e_->call_trc_limit, e_->dbio_trc_limit, e_->sql_trc_limit);
    }
    // A listed service with depth 7 (only the low byte of 0x107 is one) and limits 11, 12 and 13.
    SVC_HASH* add_service(const char* id, uint8_t flags) {
        return collector::add_service(*TestIpc::get().collector().svc(), {id, flags, 0x107, 11, 12, 13});
    }
};

TEST_F(TraceValidate, BadTypesCallsOutsideAServiceAndEntriesOfOtherThreadsAreRefused) {
    for (char type : {'0', 'Y', 'A', '3'}) EXPECT_EQ(validate(type), VARNIX_RC_BAD_TYPE) << type;
    for (int log_bit : {0, 3, 7}) {
        cxt_->log_bit = log_bit;
        for (char type : {'B', 'C', 'Q', '9', 'E'})
            EXPECT_EQ(validate(type, "SVC-A", nullptr, kTranCallinfoSApi), VARNIX_RC_NO_SERVICE) << type << log_bit;
    }
    // Client-handler and web entries report errors outside a service.
    EXPECT_EQ(validate('9', "SVC-A", nullptr, kTranClhErrorApi), kOk);
    cxt_->log_bit = 1;
    e_->sql_rec_cnt = 6;  // at most five statements are kept
    EXPECT_EQ(validate('Q'), VARNIX_RC_SQL_LIMIT);
    e_->sql_rec_cnt = 5;
    EXPECT_EQ(validate('Q'), kOk);

    // An entry of another thread is refused, and logged for services.
    const unsigned long own = e_->tid;
    e_->tid = own + 1;
    LogTail log;
    EXPECT_EQ(validate('V'), VARNIX_RC_PTRC_MISMATCH);
    EXPECT_TRUE(log.take().empty());
    EXPECT_EQ(validate('1'), VARNIX_RC_PTRC_MISMATCH);
    EXPECT_EQ(log.take(), std::vector<std::string>{fmt("<!> PTRC HASH (pid %d, tid %lu) is not equal to MTR_CXT_VAR "
                                                       "(pid %d, tid %lu)", getpid(), own + 1, getpid(), own)});
    e_->tid = own;
    cxt_->cxt_init_flag = VARNIX_RC_PTRC_FULL;
    EXPECT_EQ(validate('V'), VARNIX_RC_PTRC_FULL);
    cxt_->cxt_init_flag = 0;
}

TEST_F(TraceValidate, OutermostStartTakesTheGlobalSnapshotOrServiceLimitsAndClasses) {
    sw().call_trc_depth = 0x20C;  // only the low byte is a depth
    sw().call_trc_limit = 100, sw().dbio_trc_limit = 200, sw().sql_trc_limit = 300;
    e_->trc_lvl = 4, e_->total_call_cnt = 9, e_->err_rc_marked = 1;
    cxt_->service_depth = 1;
    EXPECT_EQ(validate('1'), kOk);
    EXPECT_EQ(limits(), "12 100 200 300");
    EXPECT_EQ(fmt("%d %d %d", e_->trc_lvl, e_->total_call_cnt, e_->err_rc_marked), "0 0 0");

    // A snapshot armed for this transaction code starts with it.
    e_->snapshot_state = 1;
    std::memcpy(e_->snapshot_tr_cd, "TR01\0", 5);
    EXPECT_EQ(validate('1', "SVC-A", "TR02"), kOk);
    EXPECT_EQ(e_->snapshot_state, 1);
    EXPECT_EQ(validate('1', "SVC-A", "TR01-X"), kOk);
    EXPECT_EQ(e_->snapshot_state, 2);
    EXPECT_EQ(limits(), "50 0 0 0");

    // With every class off, a running snapshot still lets records through;
    // events need their switch or a finished snapshot (the end finishes it).
    sw().log_flag_set = 0;
    cxt_->log_bit = 1;
    EXPECT_EQ(verdicts("9IV2VI"), fmt("0 0 %d 0 0 %d", VARNIX_RC_CLASS_OFF, VARNIX_RC_CLASS_OFF));
    EXPECT_EQ(e_->snapshot_state, 3);
    e_->snapshot_state = 0;
    EXPECT_EQ(validate('1'), VARNIX_RC_CLASS_OFF);

    // DBIO records are marked, not refused, when their class is off.
    cxt_->log_bit = 1;
    sw().log_flag_set = VARNIX_FLAG_S;
    EXPECT_EQ(validate('B'), kOk);
    EXPECT_EQ(e_->dbio_skip, 'd');
    sw().log_flag_set = VARNIX_FLAG_B;
    EXPECT_EQ(validate('B'), kOk);
    EXPECT_EQ(e_->dbio_skip, 0);
    sw().log_flag_set = get_log_flag_set(TestIpc::get().default_config().log_flag_set.c_str());
    sw().svc_filtering = 2;
    // With filtering on, a listed service: its limits, and its classes; a DBIO record is never
    // refused (the call finish drops it), extended information never filtered.
    ASSERT_NE(add_service("SVC-A", VARNIX_FLAG_S | VARNIX_FLAG_C), nullptr);
    EXPECT_EQ(validate('1', "SVC-A"), kOk);
    EXPECT_EQ(limits(), "7 11 12 13");
    cxt_->log_bit = 1;
    EXPECT_EQ(verdicts("C9B"), fmt("0 %d 0", VARNIX_RC_FILTERED));
    EXPECT_EQ(e_->dbio_skip, 'y');
    sw().log_flag_set = VARNIX_FLAG_X;
    EXPECT_EQ(validate('X'), kOk);
    // The next outermost start looks its service up again.
    add_service("SVC-OFF", VARNIX_FLAG_C);
    EXPECT_EQ(validate('1', "SVC-OFF"), VARNIX_RC_FILTERED);
}

}  // namespace
}  // namespace varnix::test
