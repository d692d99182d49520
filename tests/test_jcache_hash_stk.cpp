#include <gtest/gtest.h>

#include <memory>

#include "varnix_collector.h"

namespace {

TEST(JcacheHashStk, HoldsTwoMillionNumbers) {
    auto stk = std::make_unique<JCACHE_IDX_STK>();
    EXPECT_EQ(jcache_hash_pop(stk.get()), 0xFFFFFFFFu);
    for (uint32_t n = 0; n < VARNIX_JCACHE_ENTRIES; ++n) ASSERT_EQ(jcache_hash_push(stk.get(), n * 3), int(n) + 1);
    EXPECT_EQ(jcache_hash_push(stk.get(), 1), -1);
    EXPECT_EQ(stk->cnt, 2000000u);
    EXPECT_EQ(jcache_hash_pop(stk.get()), 5999997u);
    EXPECT_EQ(jcache_hash_pop(stk.get()), 5999994u);
    EXPECT_EQ(jcache_hash_push(stk.get(), 7), 1999999);
    EXPECT_EQ(jcache_hash_pop(stk.get()), 7u);
    EXPECT_EQ(stk->cnt, 1999998u);

    EXPECT_EQ(jcache_hash_push(nullptr, 1), -1);
    EXPECT_EQ(jcache_hash_pop(nullptr), 0xFFFFFFFFu);
}

}  // namespace
