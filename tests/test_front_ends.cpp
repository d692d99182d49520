// Front-end services: their records, the depth they pin, the nesting state they leave alone.
#include <gtest/gtest.h>

#include "support/service_calls.h"
#include "support/tracing.h"
#include "varnix_collector.h"

namespace varnix::test {
namespace {

const std::string kGid = "20261123-CLH-0000000000000000001";  // 32 characters

class FrontEnds : public OrderedRecords {
protected:
    // The columns of the next record, whose header is the caller's, without times, at depth 01.
    std::string next(char type, const ServiceCall& s, uint32_t columns) {
        TRAN_LOG_MSG m = received(0);
        EXPECT_EQ(body_field(m, 0, 222), header_of(m, *cxt_, {type, s.cls_cd, s.dtl_cd, s.gid, s.svc_id, "", ""}) +
                                             "0000000000 0000000000 01 ");
        EXPECT_EQ(body_len(m), 222 + columns);
        return std::string(body_field(m, 222, static_cast<int>(columns)));
    }
    std::string state() {
        return fmt("%d %d %d %c %c", cxt_->service_depth, e_->service_depth, cxt_->log_bit, e_->svc_state,
                   e_->chnl_class);
    }
};

TEST_F(FrontEnds, ClientHandlerPinsTheDepthAndLeavesTheNestingState) {
    ServiceCall s{.gid = kGid, .svc_id = "CLH-SVC"};
    EXPECT_EQ(call(TRAN_CLH_ERROR, s), 0);  // recorded with no service open
    EXPECT_EQ(next('9', s, 204), std::string(204, ' '));
    cxt_->service_depth = 0;  // else the starts below would nest under the pinned level
    for (int i = 0; i < 3; ++i) EXPECT_EQ(call(TRAN_START, ServiceCall{.gid = "OUTER", .svc_id = "OUTER"}), 0);
    EXPECT_EQ(TestIpc::get().collector().drain(), 3);
    cxt_->call_stat.biz_cnt = 7, e_->fetch_rows_sum = 9, e_->preset_start_tv = timeval{1700000000, 1};
    s.tail = {"Y", "KB0001", "ICC", "RECV-SVC-0001", "SCR", "EMP", "0", "ERR", "00001024", "fe80::1", "FST",
              "TRM", "Q",    "S",   "RSLT",          "EAI", "DSB", "OTSD", "OBZ", "medium",  "1",       "2"};
    EXPECT_EQ(call(TRAN_CLH_START, s), 0);
    const std::string columns = next('1', s, 204);
    EXPECT_EQ(columns, "Y KB0001 ICC RECV-SVC-000 SCR       EMP     0 ERR       00001024 " + padded("fe80::1", 39) +
                           " FST TRM Q S RSLT         EAI              DSB OTSD OBZ " + padded("medium", 39) + " 1 2 ");
    // Neither the stacks, the call sums nor a preset start time are touched.
    EXPECT_EQ(state() + fmt(" %.32s %.12s %u %d %ld %.5s", e_->main_gid, e_->main_recv_svc_cd, cxt_->call_stat.biz_cnt,
                            e_->fetch_rows_sum, e_->preset_start_tv.tv_sec, cxt_->svc_stack[0].gid),
              "1 1 1 f C " + kGid + " RECV-SVC-000 7 9 1700000000 OUTER");
    e_->preset_start_tv = timeval{}, cxt_->service_depth = 4;
    EXPECT_EQ(call(TRAN_CLH_ERROR, s) + call(TRAN_CLH_END, s), 0);
    EXPECT_EQ(next('9', s, 204), columns);
    EXPECT_EQ(next('2', s, 204), columns);
    EXPECT_EQ(state(), "1 1 1 g C");
    cxt_->service_depth = 3, TestIpc::get().que_info().svc_filtering = 2;
    EXPECT_EQ(call(TRAN_CLH_START, s), VARNIX_RC_FILTERED);
    EXPECT_EQ(cxt_->service_depth, 1);
}

TEST_F(FrontEnds, WebGatewayAndBadInput) {
    const ServiceCall s{.gid = kGid, .svc_id = "WEB-SVC", .tail = {"Y", "KB0001", "ICC", "RECV", "SCR", "EMP", "0",
                                                                    "ERR", "one", "two", "three", "four", "ABCDE"}};
    const std::string columns = "Y KB0001 ICC RECV         SCR       EMP     0 ERR       " + padded("one", 30) + " " +
                                padded("two", 20) + " " + padded("three", 20) + " " + padded("four", 30) + " ABC ";
    cxt_->service_depth = 2;
    EXPECT_EQ(call(TRAN_WEB_START, s) + call(TRAN_WEB_END, s), 0);
    EXPECT_EQ(next('1', s, 164), columns);
    EXPECT_EQ(next('2', s, 164), columns);
    // A gateway sends nothing and only pins the depth, unless service records are off.
    for (auto fep : {TRAN_FEP_START, TRAN_FEP_END}) {
        cxt_->service_depth = 3;
        EXPECT_EQ(fep(-1, "CL", -1, "D", -1, nullptr), 0);
        EXPECT_EQ(state(), "1 1 0 g O");
    }
    // Null texts are blank; a given length cuts a text, any negative one measures it.
    EXPECT_EQ(TRAN_WEB_START(-1, nullptr, 0, "DX", 1, kGid.c_str(), 12, "SVC-CUT-HERE", 7, nullptr, 0, nullptr, 0,
                             nullptr, 0, nullptr, 0, nullptr, 0, "ICTX", -2, nullptr, 0, nullptr, 0, nullptr, 0,
                             nullptr, 0, nullptr, 0, "web", -9, nullptr, 0, nullptr, 0, nullptr, 0, nullptr, 0),
              0);
    EXPECT_EQ(next('1', ServiceCall{.cls_cd = "", .gid = kGid.substr(0, 12), .svc_id = "SVC-CUT"}, 164),
              padded("         ICT", 56) + padded("web", 108));
    TestIpc::get().que_info().log_flag_set = static_cast<uint8_t>(get_log_flag_set("EVBCIXQ"));
    cxt_->service_depth = 2;
    EXPECT_EQ(TRAN_FEP_START(-1, nullptr, 0, nullptr, 0, nullptr), VARNIX_RC_CLASS_OFF);
    EXPECT_EQ(cxt_->service_depth, 2);
}

}  // namespace
}  // namespace varnix::test
