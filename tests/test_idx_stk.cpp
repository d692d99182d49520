// The collector's stacks of free entry numbers: the service table's and the job cache's.
#include <gtest/gtest.h>

#include <memory>

#include "support/log_capture.h"
#include "varnix_collector.h"

namespace varnix {
namespace {

constexpr uint32_t kNone = 0xFFFFFFFFu;

TEST(IdxStk, PushPopRemoveListAndCapacity) {
    test::LogCapture& log = test::LogCapture::get();
    ASSERT_TRUE(log.ok());
    log.take();
    auto stk = std::make_unique<HASH_IDX_STK>();
    for (uint32_t n : {3u, 9999u, 7u}) ASSERT_GT(svc_hash_push(stk.get(), n), 0);
    // Removal by value moves the last number into the hole.
    EXPECT_EQ(svc_hash_popv(stk.get(), 3), 3u);
    EXPECT_EQ(svc_hash_popv(stk.get(), 3), kNone);
    EXPECT_EQ(svc_hash_show(stk.get()), 2);
    EXPECT_EQ(log.take(), (std::vector<std::string>{"total : 2\n", "[0] array_idx#7\n", "[1] array_idx#9999\n"}));
    EXPECT_EQ(svc_hash_pop(stk.get()), 9999u);
    EXPECT_EQ(svc_hash_popv(stk.get(), 7), 7u);  // the last one: nothing to move

    for (uint32_t n = 0; n < VARNIX_TBL_ENTRIES; ++n) ASSERT_EQ(svc_hash_push(stk.get(), n), int(n) + 1);
    EXPECT_EQ(svc_hash_push(stk.get(), 42), -1);
    EXPECT_EQ(svc_hash_pop(stk.get()), 9999u);
    // Other processes write the table: a count beyond the capacity is refused by all and left alone.
    stk->cnt = VARNIX_TBL_ENTRIES + 1;
    EXPECT_EQ(svc_hash_push(stk.get(), 1), -1);
    EXPECT_EQ(svc_hash_pop(stk.get()), kNone);
    EXPECT_EQ(svc_hash_popv(stk.get(), 1), kNone);
    EXPECT_EQ(stk->cnt, 10001u);
    EXPECT_EQ(svc_hash_push(nullptr, 1), -1);
    EXPECT_EQ(svc_hash_pop(nullptr), kNone);
    EXPECT_EQ(svc_hash_popv(nullptr, 1), kNone);
    EXPECT_EQ(svc_hash_show(nullptr), -1);

    // The job cache's stack is the same one, with room for two million.
    auto jstk = std::make_unique<JCACHE_IDX_STK>();
    for (uint32_t n = 0; n < VARNIX_JCACHE_ENTRIES; ++n) ASSERT_EQ(jcache_hash_push(jstk.get(), n * 3), int(n) + 1);
    EXPECT_EQ(jcache_hash_push(jstk.get(), 1), -1);
    EXPECT_EQ(jcache_hash_pop(jstk.get()), 5999997u);
}

}  // namespace
}  // namespace varnix
