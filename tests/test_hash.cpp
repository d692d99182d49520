#include "context/hash.h"

#include <gtest/gtest.h>

namespace varnix {
namespace {

// Values worked out apart from the library, step by step.
TEST(Hash, OneAtATime) {
    EXPECT_EQ(get_hash_code("a", 1), 0xCA2E9442u);
    EXPECT_EQ(get_hidx("a", 1, 0xFFFF), 0x9442u);
    EXPECT_EQ(get_hash_code("00004321140001234567890", 23), 0x64A118D5u);
    EXPECT_EQ(get_hidx("00004321140001234567890", 23, 0xFFFF), 0x18D5u);
    // Bytes above 0x7F are added as unsigned values.
    EXPECT_EQ(get_hash_code("\xE0", 1), 0x011D81FBu);
    EXPECT_EQ(get_hash_code("", 0), 0u);
}

}  // namespace
}  // namespace varnix
