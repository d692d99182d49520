#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "support/log_capture.h"
#include "varnix_collector.h"

namespace varnix {
namespace {

using Lines = std::vector<std::string>;
constexpr uint32_t kNone = 0xFFFFFFFFu;

TEST(SvcHashStk, PushPopAndPopValue) {
    auto stk = std::make_unique<HASH_IDX_STK>();
    EXPECT_EQ(svc_hash_pop(stk.get()), kNone);
    EXPECT_EQ(svc_hash_popv(stk.get(), 0), kNone);
    EXPECT_EQ(svc_hash_push(stk.get(), 5), 1);
    EXPECT_EQ(svc_hash_push(stk.get(), 6), 2);
    EXPECT_EQ(svc_hash_push(stk.get(), 7), 3);

    EXPECT_EQ(svc_hash_popv(stk.get(), 6), 6u);
    ASSERT_EQ(stk->cnt, 2u);
    EXPECT_EQ(stk->idx[0], 5u);
    EXPECT_EQ(stk->idx[1], 7u);
    EXPECT_EQ(stk->idx[2], kNone);
    EXPECT_EQ(svc_hash_popv(stk.get(), 6), kNone);
    EXPECT_EQ(stk->cnt, 2u);

    EXPECT_EQ(svc_hash_pop(stk.get()), 7u);
    EXPECT_EQ(svc_hash_popv(stk.get(), 5), 5u);  // the last one: nothing to move
    EXPECT_EQ(stk->cnt, 0u);
    EXPECT_EQ(svc_hash_pop(stk.get()), kNone);
}

TEST(SvcHashStk, FullStackRefusesPush) {
    auto stk = std::make_unique<HASH_IDX_STK>();
    for (uint32_t n = 0; n < VARNIX_TBL_ENTRIES; ++n) ASSERT_EQ(svc_hash_push(stk.get(), n), int(n) + 1);
    EXPECT_EQ(svc_hash_push(stk.get(), 42), -1);
    EXPECT_EQ(stk->cnt, 10000u);
    EXPECT_EQ(stk->idx[9999], 9999u);
    EXPECT_EQ(svc_hash_pop(stk.get()), 9999u);

    // A count beyond the capacity is refused by every operation.
    stk->cnt = VARNIX_TBL_ENTRIES + 1;
    EXPECT_EQ(svc_hash_push(stk.get(), 1), -1);
    EXPECT_EQ(svc_hash_pop(stk.get()), kNone);
    EXPECT_EQ(svc_hash_popv(stk.get(), 1), kNone);
    EXPECT_EQ(stk->cnt, 10001u);

    EXPECT_EQ(svc_hash_push(nullptr, 1), -1);
    EXPECT_EQ(svc_hash_pop(nullptr), kNone);
    EXPECT_EQ(svc_hash_popv(nullptr, 1), kNone);
    EXPECT_EQ(svc_hash_show(nullptr), -1);
}

TEST(SvcHashStk, ShowLogsEveryNumber) {
    test::LogCapture& log = test::LogCapture::get();
    ASSERT_TRUE(log.ok());
    log.take();
    auto stk = std::make_unique<HASH_IDX_STK>();
    EXPECT_EQ(svc_hash_show(stk.get()), 0);
    EXPECT_EQ(log.take(), Lines{"total : 0\n"});
    svc_hash_push(stk.get(), 9999);
    svc_hash_push(stk.get(), 3);
    EXPECT_EQ(svc_hash_show(stk.get()), 2);
    EXPECT_EQ(log.take(), (Lines{"total : 2\n", "[0] array_idx#9999\n", "[1] array_idx#3\n"}));
}

}  // namespace
}  // namespace varnix
