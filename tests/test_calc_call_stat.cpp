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
    std::string limits() const { return fmt("%ld %ld %ld", e_->call_trc_limit, e_->dbio_trc_limit, e_->sql_trc_limit); }
    // Calls of the kind that finish below their limits, hence send nothing.
    void quiet_calls(const char* func, int n, int expect) {
        for (int i = 0; i < n; ++i) {
            ASSERT_EQ(call_start(func), 0);
            ASSERT_EQ(call_finish(func), expect) << func << " " << i;
        }
    }
};

// The time of the finishing call's children is not its own.
TEST_F(CallStatTest, CountsSumsAndMaximaFromInjectedTimes) {
    calc_call_stat(*cxt_, 1999, 'C', 500);  // 1 ms, 1 ms (1499 us) of its own
    calc_call_stat(*cxt_, 5000, 'C', 4500);  // 500 us of its own do not lower the maximum
    calc_call_stat(*cxt_, 2500, 'B', 0);
    calc_call_stat(*cxt_, 1000, 'X', 0);  // any kind but 'B' is a BIZCALL
    EXPECT_EQ(fmt("%u %ld %d %d / %u %ld %d", st().biz_cnt, st().biz_elapsed_sum, st().biz_max_ms, st().biz_self_max_ms,
                  st().dbio_cnt, st().dbio_elapsed_sum, st().dbio_max_ms),
              "3 7999 5 1 / 1 2500 2");
}

TEST_F(CallStatTest, TheCallAfterTheBaseCountSendsEvent1300OnceAndRaisesLimits) {
    gvar.infinite_loop_base_cnt = 100;
    e_->call_trc_limit = 50000, e_->dbio_trc_limit = 300000, e_->sql_trc_limit = 0;  // quiet calls
    quiet_calls("biz_loop", 60, VARNIX_RC_BIZ_FAST);
    quiet_calls("DBIO_loop", 40, VARNIX_RC_DBIO_FAST);
    EXPECT_EQ(TestIpc::get().collector().drain(), 0);  // the 100th call is not excessive
    quiet_calls("biz_loop", 1, VARNIX_RC_BIZ_FAST);
    TRAN_LOG_MSG m = received(queue_of_gid(kCallGid));
    // Codes and GID of the thread's last record, the open level's service, the record's own time.
    const std::string text = "서비스(SVC-CALLS       ) 수행 도중, BIZCALL(Method) 또는 DBIO함수 과다 호출(기준 100건초과) "
                             "증상이 발견되었습니다.";
    EXPECT_EQ(body_of(m), header_of(m, *cxt_, {'V', "ST", "1", kCallGid, kCallSvc, "", ""}) +
                              "1300 RECV-SVC-01  O    " + padded(text, 512) + " ");
    EXPECT_EQ(fmt("%d %s", st().excess_call_flag, limits().c_str()), "1 200000 300000 200000");  // raised to 200 ms
    quiet_calls("DBIO_loop", 5, VARNIX_RC_DBIO_FAST);  // once: the next calls send nothing
    // With events switched off the limits rise all the same.
    ASSERT_EQ(open_service(*cxt_, kCallGid, kCallSvc), 0);
    TestIpc::get().que_info().log_flag_set = get_log_flag_set("SEBCIXQ");
    gvar.infinite_loop_base_cnt = 0;
    e_->call_trc_limit = e_->dbio_trc_limit = 150000;
    quiet_calls("DBIO_first", 1, VARNIX_RC_DBIO_FAST);
    EXPECT_EQ(fmt("%d %s", st().excess_call_flag, limits().c_str()), "1 200000 200000 200000");
}

}  // namespace
}  // namespace varnix::test
