// Information and extended-information records.
#include <gtest/gtest.h>

#include <cstring>

#include "core/gvar.h"
#include "support/tracing.h"

namespace varnix::test {
namespace {

int32_t info(const char* gid, const char* svc, const char* text) {
    return TRAN_INFO(-1, "IC", -1, "D", -1, gid, -1, svc, -1, nullptr, 0, nullptr, 0, nullptr, 0, text, -1);
}

class TranInfo : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(start_tracing(), 0); }
    void TearDown() override { stop_tracing(); }

    TRAN_LOG_MSG received(int rc) {
        TRAN_LOG_MSG m{};
        EXPECT_GE(rc, 0);
        EXPECT_LT(rc, 4);
        EXPECT_EQ(TestIpc::get().collector().receive(m, rc), rc);
        return m;
    }
    // The state a started outermost service leaves.
    MTR_CXT_VAR& open_service(const char* gid32, const char* svc16) {
        MTR_CXT_VAR* cxt = nullptr;
        EXPECT_EQ(get_mtr_cxt_var(-1, &cxt), 0);
        cxt->service_depth = 1;
        cxt->log_bit = 1;
        std::memcpy(cxt->svc_stack[0].gid, gid32, 32);
        std::memcpy(cxt->svc_stack[0].svc_id, svc16, 16);
        return *cxt;
    }
};

TEST_F(TranInfo, OutsideAServiceNeedsAServiceId) {
    MTR_CXT_VAR* cxt = nullptr;
    ASSERT_EQ(get_mtr_cxt_var(-1, &cxt), 0);  // registered before the log is watched
    LogTail log;
    EXPECT_EQ(info("GID-WITHOUT-SERVICE-0123456789-ABC", nullptr, "text"), VARNIX_RC_SVC_DEPTH);
    char line[256];
    std::snprintf(line, sizeof line,
                  "<!> INFO service_depth error!(val:0 (MAX:10)), GID-PID-TID |GID-WITHOUT-SERVICE-0123456789|-|%d|-|%d|",
                  getpid(), static_cast<int>(pthread_self()));
    EXPECT_EQ(log.take(), std::vector<std::string>{line});
    EXPECT_EQ(TestIpc::get().collector().drain(), 0);

    TRAN_LOG_MSG m = received(info(nullptr, "SVC-X", std::string(351, 'i').c_str()));
    EXPECT_EQ(body_len(m), 548u);
    EXPECT_EQ(body_field(m, 0, 7), "I IC D ");
    EXPECT_EQ(body_field(m, 7, 33), std::string(33, ' '));
    EXPECT_EQ(body_field(m, 56, 17), padded("SVC-X", 16) + " ");
    EXPECT_EQ(body_field(m, 197, 351), std::string(350, 'i') + " ");
}

TEST_F(TranInfo, NoticesInsideAServiceCarryItsGidAndServiceId) {
    open_service("0123456789ABCDEF0123456789ABCDEF", "OPEN-SERVICE-016");
    TRAN_LOG_MSG m =
        received(TRAN_INFO(-1, nullptr, 0, nullptr, 0, nullptr, 0, nullptr, 0, nullptr, 0, nullptr, 0, nullptr, 0,
                           "library notice", -1));
    EXPECT_EQ(body_field(m, 7, 33), "0123456789ABCDEF0123456789ABCDEF ");
    EXPECT_EQ(body_field(m, 56, 17), "OPEN-SERVICE-016 ");
    EXPECT_EQ(body_field(m, 197, 15), "library notice ");

    // A caller's GID and service id win.
    m = received(info("OWN-GID", "OWN-SVC", "x"));
    EXPECT_EQ(body_field(m, 7, 33), padded("OWN-GID", 32) + " ");
    EXPECT_EQ(body_field(m, 56, 17), padded("OWN-SVC", 16) + " ");
}

TEST_F(TranInfo, ExtendedInformationHasACodeAndNoServiceFallback) {
    TRAN_LOG_MSG m = received(TRAN_INFO_EX(-1, nullptr, 0, nullptr, 0, nullptr, 0, nullptr, 0, nullptr, 0, nullptr, 0,
                                           "123456789012", -1, nullptr, 0, "no code", -1));
    EXPECT_EQ(body_len(m), 553u);
    EXPECT_EQ(body_field(m, 0, 1), "X");
    EXPECT_EQ(body_field(m, 56, 17), std::string(17, ' '));
    EXPECT_EQ(body_field(m, 184, 13), "123456789012 ");
    EXPECT_EQ(body_field(m, 197, 5), "     ");
    EXPECT_EQ(body_field(m, 202, 351), padded("no code", 350) + " ");

    open_service("0123456789ABCDEF0123456789ABCDEF", "OPEN-SERVICE-016");
    m = received(TRAN_INFO_EX(-1, nullptr, 0, nullptr, 0, nullptr, 0, nullptr, 0, nullptr, 0, nullptr, 0, nullptr, 0,
                              "CD01", -1, "with code", -1));
    EXPECT_EQ(body_field(m, 7, 33), "0123456789ABCDEF0123456789ABCDEF ");
    EXPECT_EQ(body_field(m, 56, 17), std::string(17, ' '));  // the service id stays the caller's
    EXPECT_EQ(body_field(m, 197, 5), "CD01 ");

    TestIpc::get().que_info().log_flag_set = get_log_flag_set("SEVBCIQ");
    EXPECT_EQ(TRAN_INFO_EX(-1, nullptr, 0, nullptr, 0, nullptr, 0, nullptr, 0, nullptr, 0, nullptr, 0, nullptr, 0,
                           "CD01", -1, "off", -1),
              VARNIX_RC_CLASS_OFF);
}

}  // namespace
}  // namespace varnix::test
