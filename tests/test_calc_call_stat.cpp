// Call statistics of a service: counts, sums and maxima, and the excessive-call
// event 1300 with the raised limits.
#include <gtest/gtest.h>

#include <string>

#include "api/calc_call_stat.h"
#include "core/gvar.h"
#include "support/calls.h"

namespace varnix::test {
namespace {

class CallStatTest : public InService {
protected:
    const CallStat& st() const { return cxt_->call_stat; }

    // Calls of the kind that finish below their limits, hence send nothing.
    void quiet_calls(const char* func, int n, int expect) {
        for (int i = 0; i < n; ++i) {
            ASSERT_EQ(call_start(func), 0);
            ASSERT_EQ(call_finish(func), expect) << func << " " << i;
        }
    }
};

TEST_F(CallStatTest, CountsSumsAndMaximaFromInjectedTimes) {
    // The finishing call is numbered by trc_lvl; that level holds its children.
    e_->trc_lvl = 1;
    e_->call_lvl[1].elapsed_sum = 500;
    calc_call_stat(*cxt_, 1999, 'C');
    EXPECT_EQ(st().biz_cnt, 1u);
    EXPECT_EQ(st().biz_elapsed_sum, 1999);
    EXPECT_EQ(st().biz_max_ms, 1);       // 1999 us count 1 ms
    EXPECT_EQ(st().biz_self_max_ms, 1);  // 1499 us of its own
    e_->call_lvl[1].elapsed_sum = 4500;
    calc_call_stat(*cxt_, 5000, 'C');
    EXPECT_EQ(st().biz_max_ms, 5);
    EXPECT_EQ(st().biz_self_max_ms, 1);  // 500 us own time does not lower it
    EXPECT_EQ(st().biz_elapsed_sum, 6999);

    calc_call_stat(*cxt_, 2500, 'B');
    calc_call_stat(*cxt_, 900, 'B');
    EXPECT_EQ(st().dbio_cnt, 2u);
    EXPECT_EQ(st().dbio_elapsed_sum, 3400);
    EXPECT_EQ(st().dbio_max_ms, 2);
    EXPECT_EQ(st().biz_cnt, 2u);

    // A call at the last level has no level below: all its time is its own.
    e_->trc_lvl = 51;
    calc_call_stat(*cxt_, 7000, 'X');  // any kind but 'B' is a BIZCALL
    EXPECT_EQ(st().biz_cnt, 3u);
    EXPECT_EQ(st().biz_self_max_ms, 7);
    EXPECT_EQ(st().excess_call_flag, 0);
}

TEST_F(CallStatTest, TheCallAfterTheBaseCountSendsEvent1300OnceAndRaisesLimits) {
    gvar.infinite_loop_base_cnt = 100;
    e_->call_trc_limit = 50000;
    e_->dbio_trc_limit = 300000;
    e_->sql_trc_limit = 0;
    quiet_calls("biz_loop", 60, VARNIX_RC_BIZ_FAST);
    quiet_calls("DBIO_loop", 40, VARNIX_RC_DBIO_FAST);
    EXPECT_EQ(TestIpc::get().collector().drain(), 0);  // the 100th call is not excessive
    EXPECT_EQ(st().excess_call_flag, 0);

    quiet_calls("biz_loop", 1, VARNIX_RC_BIZ_FAST);
    TRAN_LOG_MSG m = received(queue_of_gid(kCallGid));
    EXPECT_EQ(body_len(m), 733u);
    // Codes and GID of the thread's last record, the service of the open
    // level; its date and time are the record's own.
    const std::string text =
        "서비스(SVC-CALLS       ) 수행 도중, BIZCALL(Method) 또는 DBIO함수 과다 호출(기준 100건초과) 증상이 "
        "발견되었습니다.";
    EXPECT_EQ(body_field(m, 0, 733), header_of(m, *cxt_, {'V', "ST", "1", kCallGid, kCallSvc, "", ""}) +
                                         "1300 RECV-SVC-01  O    " + padded(text, 512) + " ");
    EXPECT_EQ(st().excess_call_flag, 1);
    EXPECT_EQ(e_->call_trc_limit, 200000);
    EXPECT_EQ(e_->dbio_trc_limit, 300000);  // already above
    EXPECT_EQ(e_->sql_trc_limit, 200000);

    quiet_calls("DBIO_loop", 5, VARNIX_RC_DBIO_FAST);
    EXPECT_EQ(st().biz_cnt + st().dbio_cnt, 106u);
}

TEST_F(CallStatTest, LimitsRiseWithEventsOffAndUntracedCallsDoNotCount) {
    TestIpc::get().que_info().log_flag_set = get_log_flag_set("SEBCIXQ");
    TestIpc::get().que_info().call_trc_depth = 1;
    ASSERT_EQ(open_service(*cxt_, kCallGid, kCallSvc), 0);
    gvar.infinite_loop_base_cnt = 1;
    e_->call_trc_limit = e_->dbio_trc_limit = 150000;

    // The nested call is too deep to be traced: one call counted, no notice.
    ASSERT_EQ(call_start("biz_outer"), 0);
    ASSERT_EQ(call_start("biz_inner"), 0);
    EXPECT_EQ(call_finish("biz_inner"), VARNIX_RC_NOT_TRACED);
    EXPECT_EQ(call_finish("biz_outer"), VARNIX_RC_BIZ_FAST);
    EXPECT_EQ(st().biz_cnt, 1u);
    EXPECT_EQ(st().excess_call_flag, 0);
    EXPECT_EQ(e_->call_trc_limit, 150000);

    quiet_calls("DBIO_second", 1, VARNIX_RC_DBIO_FAST);
    EXPECT_EQ(st().excess_call_flag, 1);
    EXPECT_EQ(e_->call_trc_limit, 200000);
    EXPECT_EQ(e_->dbio_trc_limit, 200000);
    EXPECT_EQ(e_->sql_trc_limit, 200000);
}

}  // namespace
}  // namespace varnix::test
