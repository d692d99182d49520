// A whole banking transaction as a server traces it: nested services,
// BIZCALLs, DBIO calls with their SQL (one two BIZCALLs deep, one with a
// BIZCALL inside), a fetch, an SQL error, a service error and the ends, read
// back in the order the collector receives them.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/calls.h"

namespace varnix::test {
namespace {

const std::string kGid = "20261123-XFER-000000000000000042";

int sql(const char* text, int32_t no) {
    return TRAN_SQL_STMT(-1, 0, nullptr, 0, nullptr, 0, no, nullptr, nullptr, text, -1);
}

int service(ServiceEntry entry, const char* svc_id) {
    ServiceCall s;
    s.gid = kGid;
    s.svc_id = svc_id;
    s.tail[2] = "IBK";
    s.tail[3] = "XFER-RECV";
    return call(entry, s);
}

TEST(TranScenario, TransferWithNestedServiceCallsSqlAndErrors) {
    ASSERT_EQ(start_tracing(), 0);
    TestIpc::get().que_info().que_mask = 0;  // one queue: the records arrive in the order sent
    MTR_CXT_VAR* cxt = nullptr;
    ASSERT_EQ(get_mtr_cxt_var(-1, &cxt), 0);

    EXPECT_EQ(service(TRAN_START, "XFER_MAIN"), 0);
    EXPECT_EQ(service(TRAN_START, "XFER_DEBIT"), 0);
    EXPECT_EQ(call_start("biz_check_limit"), 0);
    EXPECT_EQ(call_finish("biz_check_limit"), 0);
    EXPECT_EQ(call_start("biz_calc_fee"), 0);
    EXPECT_EQ(call_start("biz_rate_table"), 0);
    EXPECT_EQ(call_start("DBIO_select_account"), 0);
    EXPECT_EQ(sql("SELECT BAL FROM ACCT WHERE NO = :1", 1), 0);
    EXPECT_EQ(sql("SELECT BAL FROM ACCT WHERE NO = :1", 1), 0);  // repeated: merged
    EXPECT_EQ(sql("SELECT LIMIT FROM CUST WHERE ID = :1", 2), 0);
    EXPECT_EQ(TRAN_SET_FETCH_INFO(-1, 3, 1500, 17), 0);
    EXPECT_EQ(call_finish("DBIO_select_account"), 0);
    EXPECT_EQ(call_finish("biz_rate_table"), 0);
    EXPECT_EQ(call_finish("biz_calc_fee"), 0);

    EXPECT_EQ(call_start("DBIO_update_account"), 0);
    EXPECT_EQ(call_start("biz_lock_account"), 0);
    EXPECT_EQ(call_finish("biz_lock_account"), 0);
    EXPECT_EQ(sql("UPDATE ACCT SET BAL = BAL - :1 WHERE NO = :2", 3), 0);
    EXPECT_EQ(sql("INSERT INTO XFER_LOG VALUES (:1, :2, :3)", 4), 0);
    EXPECT_EQ(TRAN_SET_SQLCA_INFO(-1, -1, "ORA-00001: unique constraint violated", 88), 0);
    EXPECT_EQ(call_finish("DBIO_update_account", -1), 0);

    EXPECT_EQ(service(TRAN_ERROR, "XFER_DEBIT"), 0);
    EXPECT_EQ(service(TRAN_END, "XFER_DEBIT"), 0);
    EXPECT_EQ(service(TRAN_END, "XFER_MAIN"), 0);

    std::vector<TRAN_LOG_MSG> got;
    TRAN_LOG_MSG m{};
    std::string types;
    while (TestIpc::get().collector().receive(m, 0) == 0) {
        got.push_back(m);
        types += m.text[4];
    }
    // Starts, a BIZCALL, the nested DBIO call's two statements and its
    // record, the two BIZCALLs around it (inner first), the BIZCALL inside the
    // second DBIO call, the SQL error event, that call's statements and
    // record, the error, the nested end, then the statistics notice and the
    // outermost end.
    ASSERT_EQ(types, "11CQQBCCCVQQB92I2");

    const CallText check = parse_call_text(got[2]), select = parse_call_text(got[5]), lock = parse_call_text(got[8]);
    const CallText rate = parse_call_text(got[6]), fee = parse_call_text(got[7]), update = parse_call_text(got[12]);
    EXPECT_EQ(fmt("%d %d %d %d", check.level, fee.level, rate.level, select.level), "1 1 2 3");
    for (const CallText* c : {&check, &rate, &fee, &select, &update}) EXPECT_EQ(c->elapsed, c->end - c->start);
    // A BIZCALL's time splits into its own, its BIZCALLs' (without their
    // DBIO time) and the DBIO time below it; so does a DBIO call's with
    // BIZCALLs inside, which takes the BIZCALL form and stays out of the
    // service's DBIO time.
    for (const CallText* c : {&check, &rate, &fee, &update}) EXPECT_EQ(c->own + c->called + c->dbio, c->elapsed);
    EXPECT_EQ(fmt("%ld %ld %ld %ld %ld", check.own, rate.dbio, fee.called, fee.dbio, update.called),
              fmt("%ld %ld %ld %ld %ld", check.elapsed, select.elapsed, rate.elapsed - select.elapsed, select.elapsed,
                  lock.elapsed));
    EXPECT_EQ(update.rest, "[METHOD][DBIO_update_account at fin_mod (fin.c::00042){5}]#RC -1");

    // The repeated statement went out once, with its count.
    const std::string first_sql(body_field(got[3], 197, 40));
    EXPECT_EQ(first_sql.substr(0, 8), "1,2,1,2,");
    EXPECT_EQ(body_field(got[9], 197, 5), "1810 ");
    EXPECT_EQ(body_field(got[9], 7, 32), kGid);
    EXPECT_EQ(body_field(got[13], 7, 32), kGid);
    EXPECT_EQ(body_field(got[14], 219, 2), "02");
    const std::string stats(body_field(got[15], 197, 350));
    EXPECT_NE(stats.find("[ 총 호출 6 건 ] [ Max Depth 3 ] [ BIZCALL(Method) 4건"), std::string::npos) << stats;
    EXPECT_NE(stats.find("[ DBIO 2건"), std::string::npos) << stats;
    EXPECT_NE(stats.find("fetch 3 rows (1.500 ms)"), std::string::npos) << stats;
    const std::string end(body_field(got[16], 197, 25));
    EXPECT_NE(end.substr(0, 10), "0000000000");
    EXPECT_EQ(end.substr(21, 4), " 01 ");
    EXPECT_EQ(std::stol(end.substr(11, 10)), select.elapsed);
    stop_tracing();
}

}  // namespace
}  // namespace varnix::test
