// The collector side's reading of records the library sent.
#include "collector/decode.h"

#include <gtest/gtest.h>

#include <cstring>

#include "support/tracing.h"

namespace varnix::test {
namespace {

TEST(Decode, NamesTheFieldsOfARecordTheLibrarySent) {
    ASSERT_EQ(start_tracing(), 0);
    const int q = TRAN_EVENT(-1, "AB", -1, "C", -1, "GID-1", -1, "SVC", -1, "00000042", -1, "20260102", -1,
                             "030405000006", -1, "9001", -1, "RECV", -1, "O", -1, "hello", -1);
    TRAN_LOG_MSG m{};
    ASSERT_EQ(TestIpc::get().collector().receive(m, q), q);
    stop_tracing();
    std::string text = kit::describe(m);
    const std::string head = "log_type: V\ncls_cd: AB\ndtl_cd: C\ngid: GID-1\nproc_nm: test_decode\nsvc_id: SVC\n";
    EXPECT_EQ(text.substr(0, head.size()), head);
    EXPECT_NE(text.find("\npid: 00000042\ntid: "), std::string::npos);
    EXPECT_NE(text.find("date_str: 20260102\ntime_str: 030405000006\nevt_no: 9001\nrecv_svc_cd: RECV\nchnl_class: O\n"
                        "msg_text: hello\n"),
              std::string::npos);

    // Fields beyond the body length are not read.
    uint32_t short_len = 197;
    std::memcpy(m.text, &short_len, sizeof short_len);
    EXPECT_EQ(kit::describe(m).find("evt_no"), std::string::npos);
    uint32_t huge = 0xFFFFFFFF;
    std::memcpy(m.text, &huge, sizeof huge);
    EXPECT_EQ(kit::body_length(m), 780u);
}

}  // namespace
}  // namespace varnix::test
