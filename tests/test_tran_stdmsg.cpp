// The standard-telegram entries: what they take from a telegram, where they route a service, the messages of a
// failed end, the capture of both telegrams, and telegrams that lie about themselves.
#include <gtest/gtest.h>

#include <algorithm>
#include <tuple>
#include <vector>

#include "record/tmsg_view.h"
#include "support/in_child.h"
#include "support/tong_file.h"
#include "support/tracing.h"

namespace varnix::test {
namespace {

const std::string kCallerGid = "20261123-CALLER-0000000000000001";  // 32 characters
const std::string kTmsgGid = "20261123-TMSG-000000000000000001";
const std::string kMessage = "[MSG000001] " + padded("the account is closed", 300);

// A blank telegram of n bytes with the given fields where the table puts them.
std::string telegram(size_t n, const std::vector<std::pair<const int32_t*, std::string>>& fields) {
    std::string t(n, ' ');
    for (const auto& [entry, text] : fields) t.replace(static_cast<size_t>(entry[0]), text.size(), text);
    return t;
}

// A failed response of n bytes: result 9, data kind "EM", one item, one message and two additional ones.
std::string failed_telegram(size_t n) {
    std::string t = telegram(n, {{_GLBL_ID, kTmsgGid}, {_CHNL_TYP_CD, "ICC"}, {_RECV_SVC_CD, "RECV-SVC-001"},
                                 {_PROC_RSLT_DV_CD, "9"}, {_STD_TMSG_DAT_KIND_CD, "EM"}});
    const std::string part = "01" + padded("ITEM", 20) + "01" + "MSG000001" + kMessage.substr(12) + "02" + "ADD000001" +
                             padded("first addition", 200) + "ADD000002" + padded("second addition", 200);
    return t.replace(561, std::min(part.size(), n - 561), part.substr(0, n - 561));
}

int32_t stdx(decltype(&TRAN_STARTX) entry, const char* gid, const char* svc, const char* tel, int32_t len,
             int32_t std_tmsg = 1) {
    return entry(-1, "CL", -1, "D", -1, gid, -1, svc, -1, tel, len, std_tmsg, 1);
}
int32_t stdx(decltype(&TRAN_STARTX) entry, const std::string& gid, const char* svc, const std::string& tel) {
    return stdx(entry, gid.c_str(), svc, tel.data(), static_cast<int32_t>(tel.size()));
}

// Moves table entries (entry, offset, length) for one scope.
using Moves = std::vector<std::tuple<int32_t*, int32_t, int32_t>>;
struct MovedFields {
    static void apply(const Moves& moves) {
        for (auto [entry, off, len] : moves) entry[0] = off, entry[1] = len;
    }
    explicit MovedFields(const Moves& moves) {
        for (auto [entry, off, len] : moves) saved.emplace_back(entry, entry[0], entry[1]);
        apply(moves);
    }
    ~MovedFields() { apply(saved); }
    Moves saved;
};

class TranStdmsg : public OrderedRecords {
protected:
    // Every record that arrived, in order.
    std::vector<TRAN_LOG_MSG> take() {
        std::vector<TRAN_LOG_MSG> got;
        for (TRAN_LOG_MSG m{}; TestIpc::get().collector().receive(m) >= 0;) got.push_back(m);
        return got;
    }
    std::string types(const std::vector<TRAN_LOG_MSG>& records) {
        std::string s;
        for (const TRAN_LOG_MSG& m : records) s += body_field(m, 0, 1);
        return s;
    }
    std::string text_of(const TRAN_LOG_MSG& m, int at = 197) { return std::string(body_field(m, at, 350)); }
};

// Channel ICC: the C/C notices, the start traced with the telegram's GID, the 12-character service id cut to 9, a
// snapshot armed by a trade code longer than the channel column.  The failed "EM" end: error, error information,
// two information records, end, and the snapshot's completion.
TEST_F(TranStdmsg, InternalChannelAndAFailedEndWithItsMessages) {
    std::string tel = telegram(700, {{_GLBL_ID, kTmsgGid}, {_TRSC_GRCO_CD, "KB"}, {_TRSC_BR_NO, "0001"},
                                     {_CHNL_TYP_CD, "ICCSNAP00001"}, {_PROC_RSLT_DV_CD, "0"},
                                     {_STD_TMSG_LEN, "00000700"}, {_FST_TRMS_MDCL_CTT, "medium"}});
    e_->snapshot_state = 1, std::memcpy(e_->snapshot_tr_cd, "ICCSNAP00001", 13);
    EXPECT_EQ(stdx(TRAN_STARTX, kCallerGid, "ACCT_INQUIRY", tel), 0);
    std::vector<TRAN_LOG_MSG> r = take();
    ASSERT_EQ(types(r), "II1");
    EXPECT_EQ(body_field(r[0], 7, 32), kCallerGid);
    EXPECT_EQ(text_of(r[0]),
              padded("C/C Transaction Created [ GID '" + kTmsgGid.substr(0, 30) + "', Service ACCT_INQU ]", 350));
    EXPECT_EQ(body_field(r[1], 7, 32), kTmsgGid);
    EXPECT_EQ(text_of(r[1]),
              padded("Linked C/C Main Service Transaction Exist [ GID '" + kCallerGid.substr(0, 30) + "' ]", 350));
    EXPECT_EQ(body_field(r[2], 0, 222),
              header_of(r[2], *cxt_, {'1', "CL", "D", kTmsgGid, "ACCT_INQU", "", ""}) + "0000000000 0000000000 01 ");
    EXPECT_EQ(body_field(r[2], 222, 204), "1 KB0001 ICC " + std::string(31, ' ') + "0 " + std::string(10, ' ') +
                                              "00000700 " + std::string(95, ' ') + padded("medium", 39) + "     ");
    EXPECT_EQ(e_->snapshot_state, 2);

    tel = failed_telegram(1400);
    EXPECT_EQ(stdx(TRAN_ENDX, kCallerGid, "ACCT_INQUIRY", tel), 0);
    r = take();
    ASSERT_EQ(types(r), "9EII2V");
    EXPECT_EQ(body_field(r[1], 197, 373), "1107 RECV-SVC-001 C    " + padded(kMessage, 350));
    EXPECT_EQ(text_of(r[2]), padded("[ADD000001] first addition", 350));
    EXPECT_EQ(text_of(r[3]), padded("[ADD000002] second addition", 350));
    EXPECT_EQ(std::string(body_field(r[4], 0, 73)) + std::string(body_field(r[5], 197, 5)),
              "2 CL D " + kTmsgGid + " " + padded(gvar.proc_nm, 15) + " ACCT_INQU        1302 ");
}

// A moved channel type column: read where it now lies, so another channel, the "New" notices and the caller's GID.
// A failed "EM" telegram of 1084 bytes has no message walk, nor has a longer one measured up to its NUL.
TEST_F(TranStdmsg, MovedChannelShortErrorTelegramFixedLayoutAndGateway) {
    std::string tel = failed_telegram(1084);
    tel.replace(600, 3, "XYZ");
    {
        const MovedFields moved({{_CHNL_TYP_CD, 600, 3}});
        EXPECT_EQ(stdx(TRAN_STARTX, kCallerGid, "SVC-MOVED", tel), 0);
        std::vector<TRAN_LOG_MSG> r = take();
        ASSERT_EQ(types(r), "II1");
        EXPECT_EQ(text_of(r[0]),
                  padded("New Transaction Created [ GID '" + kTmsgGid.substr(0, 30) + "', Service SVC-MOVED ]", 350));
        EXPECT_EQ(text_of(r[1]),
                  padded("Linked Main Service Transaction Exist [ GID '" + kCallerGid.substr(0, 30) + "' ]", 350));
        EXPECT_EQ(std::string(body_field(r[2], 7, 32)) + std::string(body_field(r[2], 231, 4)), kCallerGid + "XYZ ");
        EXPECT_EQ(stdx(TRAN_ENDX, kCallerGid, "SVC-MOVED", tel), 0);
        EXPECT_EQ(types(take()), "92");
    }
    const std::string measured = failed_telegram(1400);
    EXPECT_LT(stdx(TRAN_STARTX, kTmsgGid.c_str(), "SVC-MEASURED", measured.c_str(), -1), 99);
    EXPECT_LT(stdx(TRAN_ENDX, kTmsgGid.c_str(), "SVC-MEASURED", measured.c_str(), -1), 99);
    EXPECT_EQ(types(take()), "192");

    // The service id counts up to its NUL whatever length comes with it, and one of 12 characters is traced by 9.
    const std::string plain = telegram(600, {{_GLBL_ID, kTmsgGid}, {_PROC_RSLT_DV_CD, "0"}});
    auto call = [&](decltype(&TRAN_STARTX) entry, const char* svc, int32_t len) {
        return entry(-1, "CL", -1, "D", -1, kTmsgGid.c_str(), -1, svc, len, plain.data(), 600, 1, 1);
    };
    EXPECT_LT(call(TRAN_STARTX, "SVCLONGNAME1234", 5) + call(TRAN_STARTX, "ACCT_INQUIRY", 3), 99);
    EXPECT_LT(call(TRAN_ENDX, "ACCT_INQUIRY", 3) + call(TRAN_ENDX, "SVCLONGNAME1234", 5), 99);
    std::string svc_ids;
    for (const TRAN_LOG_MSG& m : take())
        svc_ids += std::string(body_field(m, 0, 1)) + std::string(body_field(m, 56, 16));
    EXPECT_EQ(svc_ids, "1SVCLONGNAME1234 1ACCT_INQU       2ACCT_INQU       2SVCLONGNAME1234 ");

    // The older fixed layout: its own offsets, fields read up to a NUL, the binary length as "%08d", the GID at 10
    // for channel ICT; a failed result gets the error record but no message walk.
    tel.assign(1400, ' ');
    const int32_t n = 1400;
    tel.replace(0, 4, reinterpret_cast<const char*>(&n), 4).replace(10, 32, kTmsgGid).replace(253, 3, "ICT");
    tel.replace(402, 2, "KB").replace(405, 4, "0001").replace(160, 11, std::string("RECV\0HIDDEN", 11));
    tel.replace(220, 1, "1").replace(512, 2, "EM");
    EXPECT_EQ(stdx(TRAN_STARTX, kTmsgGid.c_str(), "SVC-FIXED", tel.data(), n, 0), 0);
    std::vector<TRAN_LOG_MSG> r = take();
    ASSERT_EQ(types(r), "1");
    EXPECT_EQ(std::string(body_field(r[0], 7, 32)) + std::string(body_field(r[0], 222, 65)),
              kTmsgGid + "1 KB0001 ICT RECV         " + padded("", 18) + "1 " + padded("", 10) + "00001400 ");
    EXPECT_EQ(stdx(TRAN_ENDX, "OTHER-GID", "SVC-FIXED", tel.data(), n, 0), 0);
    EXPECT_EQ(types(take()), "92");

    // Without a telegram a "GW" service starts as a service and ends as a client handler, which leaves the
    // service's nesting state alone.
    EXPECT_EQ(stdx(TRAN_STARTX, "GW-GID", "GW-SVC", nullptr, 0), 0);
    EXPECT_EQ(stdx(TRAN_ENDX, "GW-GID", "GW-SVC", nullptr, 0), 0);
    EXPECT_EQ(types(take()), "12");
    EXPECT_EQ(cxt_->log_bit, 1);  // an end of TRAN_END would have made it 3
}

// Telegrams and tables that lie: nothing is read past the telegram, and each call still traces.
TEST_F(TranStdmsg, BadTelegramsAndTables) {
    const std::string failed = failed_telegram(1400);
    const std::vector<char> unterminated(kTmsgMeasureMax, '9');  // a sanitizer build sees a read past it
    struct Case {
        const char* name;
        const char* tel;
        int32_t len;
        Moves moves;
        std::vector<std::pair<size_t, std::string>> edits;
        std::string start, end;
        std::string columns = "";  // of the start record, from the channel type to the employee number
    } cases[] = {
        {"no telegram", nullptr, 1400, {}, {}, "1", "2"},
        {"no NUL, negative length", unterminated.data(), -1, {}, {}, "II1", "92"},
        {"count 99", failed.data(), 1400, {}, {{561, "99"}}, "1", "92"},
        {"counts with blanks and other characters", failed.data(), 1400, {}, {{561, " 1"}, {583, "1x"}, {894, "-2"}},
         "1", "9E2"},
        {"table past the end", failed.data(), 1400,
         {{_GLBL_ID, INT32_MAX, INT32_MAX}, {_CHNL_TYP_CD, -5, 3}, {_EMP_NO, 1398, INT32_MAX},
          {_ERR_ORGN_ITEM_REPT_TCNT, 1400, 2}, {_RECV_SVC_CD, INT32_MIN, -1}},
         {{1398, "ZZ"}}, "II1", "92", padded("", 27) + "ZZ      "},
        {"item past the end", failed.data(), 1400, {{_ERR_ORGN_ITEM_NM, -1, INT32_MAX}, {_MSG_CD, -1, -9}}, {}, "1",
         "92"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        std::string edited(c.tel ? c.tel : "", c.tel && c.len > 0 ? static_cast<size_t>(c.len) : 0);
        for (const auto& [at, text] : c.edits) edited.replace(at, text.size(), text);
        const char* tel = c.edits.empty() ? c.tel : edited.data();
        const MovedFields moved(c.moves);
        EXPECT_EQ(stdx(TRAN_STARTX, kTmsgGid.c_str(), "SVC-BAD", tel, c.len), 0);
        std::vector<TRAN_LOG_MSG> r = take();
        ASSERT_EQ(types(r), c.start);
        if (!c.columns.empty()) { EXPECT_EQ(body_field(r.back(), 231, 35), c.columns); }
        EXPECT_EQ(stdx(TRAN_ENDX, kTmsgGid.c_str(), "SVC-BAD", tel, c.len), 0);
        EXPECT_EQ(types(take()), c.end);
    }
}

// With capture on, both telegrams stand in the day's data file (the GID read where the table says at each call);
// a telegram too short for capture is refused and not traced.
TEST(TranStdmsgCapture, StartAndEndTelegramsLandInTheDataFile) {
    in_child([] {
        ASSERT_EQ(start_tracing(), 0);
        TestIpc::get().que_info().tong_log_flag = '1';
        const std::string request = telegram(600, {{_GLBL_ID, kTmsgGid}});
        std::string response = failed_telegram(1400);
        response.replace(100, 32, "MOVED-GID-0000000000000000000001");
        EXPECT_LT(stdx(TRAN_STARTX, kCallerGid.c_str(), "SVC-CAPTURED", request.c_str(), -1), 99);
        EXPECT_EQ(stdx(TRAN_STARTX, kCallerGid, "SVC-SHORT", std::string(511, ' ')), VARNIX_RC_SHORT_TMSG);
        {
            const MovedFields moved({{_GLBL_ID, 100, 32}});
            EXPECT_LT(stdx(TRAN_ENDX, kCallerGid, "SVC-CAPTURED", response), 99);
        }
        const std::string path = tong_data_path();
        ASSERT_TRUE(wait_for([&] { return read_file(path).size() == 600 + 1400 + 2 * 118; }));
        const std::string file = read_file(path);
        expect_tong_record(file.substr(0, 718), request, 'S');
        expect_tong_record(file.substr(718), response, 'F', 100);
        TestIpc::get().que_info().tong_log_flag = '0';
        TestIpc::get().collector().drain();
    });
}

}  // namespace
}  // namespace varnix::test
