// Validation of records against the thread's state, the collector's switches
// and the service table; the field writer; dispatch of unsendable types.
#include <gtest/gtest.h>

#include <cstring>

#include "core/gvar.h"
#include "core/status.h"
#include "record/record.h"
#include "support/tracing.h"

namespace varnix::test {
namespace {

TEST(SetLogField, PadsCutsBlanksAndAlwaysEndsWithASpace) {
    struct Case {
        const char* text;
        int len, copy;
        std::string_view want;
    } cases[] = {{"AB", -1, 1, "AB   x"},  {"ABCDEF", -1, 1, "ABCD x"}, {"ABCDEF", 2, 1, "AB   x"},
                 {nullptr, 3, 1, "     x"}, {"AB", -1, 0, "xx   x"},     {"ABCD", -1, 0, "xxxx x"}};  // 0: padding only
    for (const Case& c : cases) {
        char f[8];
        std::memset(f, 'x', sizeof f);
        set_log_field(c.text, c.len, f, 4, c.copy);
        EXPECT_EQ(std::string_view(f, 6), c.want) << (c.text ? c.text : "null") << " " << c.len << " " << c.copy;
    }
}

class TraceValidate : public TracedThread {
protected:
    void SetUp() override {
        TracedThread::SetUp();
        if (HasFatalFailure()) return;
        std::memset(body(hdr::kSvcId), '.', 16);
    }

    int validate(char type, const char* svc = "SVC-A", const char* key = nullptr, char api = kTranStartApi) {
        return trace_validate(*cxt_, type, api, cxt_->log_body, svc, -1, key);
    }
    char* body(int offset) { return cxt_->log_body + offset; }
    std::string_view svc_field() { return {body(hdr::kSvcId), 16}; }
    TRAN_LOGF_QUE_INFO& sw() { return TestIpc::get().que_info(); }
    SVC_HASH* add_service(const char* id, uint8_t flags) {
        kit::ServiceListing listing;
        listing.svc_id = id;
        listing.flags = flags;
        listing.call_trc_depth = 0x107;  // only the low byte is a depth
        listing.call_trc_limit = 11;
        listing.dbio_trc_limit = 12;
        listing.sql_trc_limit = 13;
        return kit::add_service(*TestIpc::get().collector().svc(), listing);
    }
};

TEST_F(TraceValidate, TypesOutsideTheTableAndCallsOutsideAServiceAreRefused) {
    for (char type : {'0', 'Y', 'A', '3'}) {
        EXPECT_EQ(validate(type), VARNIX_RC_BAD_TYPE) << type;
        EXPECT_EQ(svc_field(), std::string(16, '.'));
    }
    for (int log_bit : {0, 3, 7}) {
        cxt_->log_bit = log_bit;
        for (char type : {'B', 'C', 'Q', '9', 'E'})
            EXPECT_EQ(validate(type, "SVC-A", nullptr, kTranCallinfoSApi), VARNIX_RC_NO_SERVICE) << type << log_bit;
        EXPECT_EQ(svc_field(), std::string(16, '.'));
    }
    // Client-handler and web entries report errors outside a service.
    EXPECT_EQ(validate('9', "SVC-A", nullptr, kTranClhErrorApi), kOk);
    cxt_->log_bit = 1;
    e_->sql_rec_cnt = 6;
    EXPECT_EQ(validate('Q'), VARNIX_RC_SQL_LIMIT);
    e_->sql_rec_cnt = 5;
    EXPECT_EQ(validate('Q'), kOk);
    EXPECT_EQ(svc_field(), "SVC-A           ");
}

TEST_F(TraceValidate, OutermostStartTakesTheGlobalOrSnapshotLimits) {
    sw().call_trc_depth = 0x20C;
    sw().call_trc_limit = 100;
    sw().dbio_trc_limit = 200;
    sw().sql_trc_limit = 300;
    e_->trc_lvl = 4;
    e_->total_call_cnt = 9;
    e_->err_rc_marked = 1;
    cxt_->service_depth = 1;
    EXPECT_EQ(validate('1'), kOk);
    EXPECT_EQ(e_->call_trc_depth_max, 0x0C);
    EXPECT_EQ(e_->call_trc_limit, 100);
    EXPECT_EQ(e_->dbio_trc_limit, 200);
    EXPECT_EQ(e_->sql_trc_limit, 300);
    EXPECT_EQ(e_->trc_lvl, 0);
    EXPECT_EQ(e_->total_call_cnt, 0);
    EXPECT_EQ(e_->err_rc_marked, 0);

    // A snapshot armed for this transaction code starts with it.
    e_->snapshot_state = 1;
    std::memcpy(e_->snapshot_tr_cd, "TR01\0", 5);
    EXPECT_EQ(validate('1', "SVC-A", "TR02"), kOk);
    EXPECT_EQ(e_->snapshot_state, 1);
    EXPECT_EQ(validate('1', "SVC-A", "TR01-X"), kOk);
    EXPECT_EQ(e_->snapshot_state, 2);
    EXPECT_EQ(e_->call_trc_depth_max, 50);
    EXPECT_EQ(e_->call_trc_limit, 0);

    // With every class off, a running snapshot still lets records through.
    sw().log_flag_set = 0;
    cxt_->log_bit = 1;
    EXPECT_EQ(validate('9'), kOk);
    EXPECT_EQ(validate('I'), kOk);
    EXPECT_EQ(validate('V'), VARNIX_RC_CLASS_OFF);  // events need their switch or a finished snapshot
    EXPECT_EQ(validate('2'), kOk);
    EXPECT_EQ(e_->snapshot_state, 3);
    EXPECT_EQ(validate('V'), kOk);
    EXPECT_EQ(validate('I'), VARNIX_RC_CLASS_OFF);
    e_->snapshot_state = 0;
    EXPECT_EQ(validate('1'), VARNIX_RC_CLASS_OFF);
}

TEST_F(TraceValidate, DbioIsMarkedNotRefusedAndTheServiceTableDecidesWhenFilteringIsOn) {
    cxt_->log_bit = 1;
    sw().log_flag_set = VARNIX_FLAG_S;
    EXPECT_EQ(validate('B'), kOk);
    EXPECT_EQ(e_->dbio_skip, 'd');
    sw().log_flag_set = VARNIX_FLAG_B;
    EXPECT_EQ(validate('B'), kOk);
    EXPECT_EQ(e_->dbio_skip, 0);

    sw().log_flag_set = get_log_flag_set(TestIpc::get().default_config().log_flag_set.c_str());
    sw().svc_filtering = 2;
    cxt_->service_depth = 1;
    EXPECT_EQ(validate('1', "MISSING"), VARNIX_RC_FILTERED);
    EXPECT_EQ(svc_field(), "MISSING         ");

    SVC_HASH* s = add_service("SVC-A", VARNIX_FLAG_S | VARNIX_FLAG_C);
    ASSERT_NE(s, nullptr);
    EXPECT_EQ(validate('1', "SVC-A"), kOk);
    ASSERT_NE(cxt_->svc_hash, nullptr);  // the library's own mapping of the table
    EXPECT_EQ(cxt_->svc_hash->pidx, s->pidx);
    EXPECT_EQ(e_->call_trc_depth_max, 7);
    EXPECT_EQ(e_->call_trc_limit, 11);
    EXPECT_EQ(e_->dbio_trc_limit, 12);
    EXPECT_EQ(e_->sql_trc_limit, 13);
    cxt_->log_bit = 1;
    EXPECT_EQ(validate('C'), kOk);
    EXPECT_EQ(validate('9'), VARNIX_RC_FILTERED);
    EXPECT_EQ(validate('B'), kOk);  // never refused: the call finish drops it
    EXPECT_EQ(e_->dbio_skip, 'y');
    sw().log_flag_set = VARNIX_FLAG_X;
    EXPECT_EQ(validate('X'), kOk);  // not filtered by service
    EXPECT_EQ(validate('2'), kOk);

    // The next outermost start looks its service up again.
    add_service("SVC-OFF", VARNIX_FLAG_C);
    EXPECT_EQ(validate('1', "SVC-OFF"), VARNIX_RC_FILTERED);
}

TEST_F(TraceValidate, EntryOfAnotherThreadIsRefusedAndLoggedForServices) {
    const uint64_t own = e_->tid;
    e_->tid = own + 1;
    LogTail log;
    EXPECT_EQ(validate('V'), VARNIX_RC_PTRC_MISMATCH);
    EXPECT_EQ(log.take(), std::vector<std::string>{});
    EXPECT_EQ(validate('1'), VARNIX_RC_PTRC_MISMATCH);
    char line[256];
    std::snprintf(line, sizeof line, "<!> PTRC HASH (pid %d, tid %lu) is not equal to MTR_CXT_VAR (pid %d, tid %lu)",
                  getpid(), static_cast<unsigned long>(own + 1), getpid(), static_cast<unsigned long>(own));
    EXPECT_EQ(log.take(), std::vector<std::string>{line});
    e_->tid = own;

    cxt_->cxt_init_flag = VARNIX_RC_PTRC_FULL;
    EXPECT_EQ(validate('V'), VARNIX_RC_PTRC_FULL);
    cxt_->cxt_init_flag = 0;
}

TEST_F(TraceValidate, UnsendableTypesStillPickTheirQueue) {
    std::memcpy(body(hdr::kGid), padded("SOME-GID", 32).data(), 32);
    body(hdr::kLogType)[0] = 'Z';
    e_->qidx = 99;
    EXPECT_EQ(tran_logb(*cxt_, cxt_->log_rec), VARNIX_RC_BAD_TYPE);
    EXPECT_EQ(e_->qidx, queue_of_gid("SOME-GID"));
    EXPECT_EQ(TestIpc::get().collector().drain(), 0);
}

}  // namespace
}  // namespace varnix::test
