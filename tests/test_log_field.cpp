// Field writers of the record path against the printf conversions the record
// layouts are defined by.
#include <gtest/gtest.h>

#include <climits>
#include <cstdio>
#include <cstring>
#include <limits>
#include <random>
#include <string>

#include "core/log_field.h"
#include "core/text_out.h"

namespace varnix {
namespace {

std::string printed(const char* fmt, auto... args) {
    char buf[128];
    const int n = std::snprintf(buf, sizeof buf, fmt, args...);
    return std::string(buf, static_cast<size_t>(n));
}

TEST(TextOut, NumbersAsPrintfWritesThem) {
    const int64_t values[] = {0, 1, 9, 10, 99, 100, 12345, 999999, 1000000, -1, -9, -10, -123456,
                              INT32_MAX, INT32_MIN, INT64_MAX, INT64_MIN, INT64_MIN + 1};
    for (int64_t v : values) {
        for (int width : {0, 1, 2, 5, 6, 8, 10, 15, 20}) {
            char buf[kNumberMax + 1];
            const int n = write_zero_padded(buf, v, width);
            EXPECT_EQ(std::string(buf, static_cast<size_t>(n)), printed("%0*lld", width, static_cast<long long>(v)))
                << v << " width " << width;
        }
        // A field keeps the leading characters of a number wider than itself.
        char field[11];
        put_number(field, 10, v);
        EXPECT_EQ(std::string(field, 11), printed("%-10.10s ", printed("%010lld", static_cast<long long>(v)).c_str()));
    }
    TextOut<80> t;
    t.secs(12, 345).ch(',').secs(-1, -500000).ch(',').secs(0, 0).ch(',').secs(1'700'000'000, 999'999).ch(',');
    t.cstr(nullptr).text("abc"sv);
    EXPECT_EQ(std::string(t.data(), static_cast<size_t>(t.size())),
              printed("%ld.%06ld,%ld.%06ld,%ld.%06ld,%ld.%06ld,abc", 12L, 345L, -1L, -500000L, 0L, 0L, 1'700'000'000L,
                      999'999L));
}

TEST(TextOut, AveragesAsPrintfRoundsThem) {
    std::mt19937 gen(20261123);
    std::uniform_int_distribution<int64_t> sum_us(0, 100'000'000'000);
    std::uniform_int_distribution<uint32_t> count(1, 100'000);
    auto check = [](float v) {
        TextOut<32> t;
        t.fixed2(v, 6);
        ASSERT_EQ(std::string(t.data(), static_cast<size_t>(t.size())), printed("%6.2f", static_cast<double>(v))) << v;
    };
    for (float v : {0.0f, -0.0f, 0.005f, 0.125f, 0.375f, 1.005f, 2.5f, 999.995f, 1e10f, -3.14159f, 9.2e15f,
                    std::numeric_limits<float>::infinity()})
        check(v);
    for (int i = 0; i < 200'000; ++i)
        check(static_cast<float>(sum_us(gen)) / static_cast<float>(count(gen)) / 1000.0f);
}

TEST(TextOut, CutAtItsSize) {
    TextOut<8> t;
    t.text("12345"sv).number(-678).text("never"sv);
    EXPECT_EQ(std::string(t.data(), static_cast<size_t>(t.size())), "12345-67");
    const char unterminated[4] = {'a', 'b', 'c', 'd'};
    TextOut<3> u;
    u.cstr(unterminated);  // read no further than fits
    EXPECT_EQ(std::string(u.data(), static_cast<size_t>(u.size())), "abc");
    // Pieces written whole past the end are cut as well.
    TextOut<10> v;
    v.text("abcdefgh"sv).secs(12, 345).ch('x').number(INT64_MIN, 20).text("more"sv);
    EXPECT_EQ(std::string(v.data(), static_cast<size_t>(v.size())), "abcdefgh12");
}

}  // namespace
}  // namespace varnix
