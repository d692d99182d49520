// Writers of the numbers and texts of record fields: the same characters as
// the printf conversions the records are defined by ("%d", "%0*ld", "%.*lu",
// "%ld.%06ld", "%6.2f", "%s"), written directly.  Records are built on every
// traced call, where the format parser would cost more than the rest of the
// record.
#pragma once

#include <cstdint>
#include <cstring>
#include <string_view>

#include "core/log_field.h"

namespace varnix {

// The "..."sv literals that TextOut's text takes.
using namespace std::string_view_literals;

// Longest text write_zero_padded writes: a sign, 19 digits, or the width.
inline constexpr int kNumberMax = 20;

// Decimal digits of u: the bit length gives the count or one more, and one
// comparison with a power of ten settles which.
inline int digit_count(uint64_t u) {
    static constexpr uint64_t kPow10[20] = {
        1ull, 10ull, 100ull, 1000ull, 10000ull, 100000ull, 1000000ull, 10000000ull, 100000000ull,
        1000000000ull, 10000000000ull, 100000000000ull, 1000000000000ull, 10000000000000ull,
        100000000000000ull, 1000000000000000ull, 10000000000000000ull, 100000000000000000ull,
        1000000000000000000ull, 10000000000000000000ull};
    u |= 1;
    const int t = ((64 - __builtin_clzll(u)) * 1233) >> 12;  // 1233 / 4096 just above log10(2)
    return t + 1 - (u < kPow10[t]);
}

// "%0*lld" of v: the sign, then the digits zero-padded so that the whole is
// at least `width` (at most kNumberMax) characters.  Returns the length.
inline int write_zero_padded(char* out, int64_t v, int width) {
    if (width > kNumberMax) width = kNumberMax;
    const uint64_t u = v < 0 ? 0 - static_cast<uint64_t>(v) : static_cast<uint64_t>(v);
    int len = 0;
    if (v < 0) out[len++] = '-';
    const int digits = digit_count(u);
    const int total = width - len > digits ? width - len : digits;
    write_digits(out + len, u, total);
    return len + total;
}

// A text of at most N characters, built piece by piece; what does not fit is
// cut off.  Pieces are literals ("..."sv, whose lengths the compiler knows),
// views, C strings (cstr) and numbers.
//
// The buffer reaches kSlack bytes past N, so that a short piece (a number, a
// literal, a character) is written whole without asking whether it fits and
// only the length is then held to N: the record texts are written piece by
// piece on every traced call, and most pieces are short.
template <int N>
class TextOut {
public:
    TextOut& text(std::string_view s) {
        if (s.size() <= kShort) {  // constant for a literal: one move of its size
            field_detail::copy_short<kShort + 1>(s_ + n_, s.data(), s.size());
            return grow(static_cast<int>(s.size()));
        }
        const size_t n = s.size() <= room() ? s.size() : room();
        std::memcpy(s_ + n_, s.data(), n);
        n_ += static_cast<int>(n);
        return *this;
    }
    // Would read a C string without bound: C strings go through cstr.
    TextOut& text(const char*) = delete;
    // A NUL-terminated text, read no further than what still fits; none
    // for null.
    TextOut& cstr(const char* s) { return s ? text(std::string_view(s, strnlen(s, room()))) : *this; }
    TextOut& ch(char c) {
        s_[n_] = c;
        return grow(1);
    }
    TextOut& number(int64_t v, int width = 0) {
        if (static_cast<uint64_t>(v) < 10 && width <= 1) {  // levels, counts, most codes
            s_[n_] = static_cast<char>('0' + v);
            return grow(1);
        }
        return grow(write_zero_padded(s_ + n_, v, width));
    }
    // "%ld.%06ld"
    TextOut& secs(int64_t s, int64_t us) {
        if (us < 0 || us >= 1'000'000) return number(s).ch('.').number(us, 6);
        if ((s | us) == 0) return text("0.000000"sv);  // the times of what did not happen
        int n = 1;
        if (s == 0) s_[n_] = '0';
        else n = write_zero_padded(s_ + n_, s, 0);
        s_[n_ + n] = '.';
        write_digits(s_ + n_ + n + 1, static_cast<uint64_t>(us), 6);
        return grow(n + 7);
    }
    // "%*.2f" of a float (width at most kNumberMax), with a '.' whatever the
    // host's locale.  A float has 24 significant bits, so v x 100 is exact
    // in a double, and rounding that to the nearest integer (ties to even,
    // as printf rounds) gives printf's digits without a floating-point
    // formatter, which would tie the library to libm.
    TextOut& fixed2(float v, int width) {
        if (width > kNumberMax) width = kNumberMax;
        const double x = static_cast<double>(v) * 100.0;
        if (!(x > -9e18 && x < 9e18)) return padded(x != x ? "nan"sv : x > 0 ? "inf"sv : "-inf"sv, width);
        const double ax = x < 0 ? -x : x;
        auto cents = static_cast<uint64_t>(ax);
        const double frac = ax - static_cast<double>(cents);
        if (frac > 0.5 || (frac == 0.5 && (cents & 1))) ++cents;
        const int sign = __builtin_signbit(v) ? 1 : 0;
        const int digits = digit_count(cents / 100);
        const int pad = width - (sign + digits + 3) > 0 ? width - (sign + digits + 3) : 0;
        char* at = s_ + n_;
        std::memset(at, ' ', static_cast<size_t>(pad));
        at[pad] = '-';  // overwritten by the first digit when positive
        write_digits(at + pad + sign, cents / 100, digits);
        at[pad + sign + digits] = '.';
        write_digits(at + pad + sign + digits + 1, cents % 100, 2);
        return grow(pad + sign + digits + 3);
    }
    const char* data() const { return s_; }
    int size() const { return n_; }

private:
    // The longest piece written before the length is held to N: a number's
    // seconds and microseconds ("%ld.%06ld": 20 + 1 + 6), an average (its
    // width, or a sign, 17 digits and 3), or a literal.
    static constexpr size_t kShort = 32;
    static constexpr size_t kSlack = 32;
    static_assert(kSlack >= kNumberMax + 7 && kSlack >= kShort);

    size_t room() const { return static_cast<size_t>(N - n_); }
    TextOut& padded(std::string_view s, int width) {
        for (int pad = width - static_cast<int>(s.size()); pad > 0; --pad) ch(' ');
        return text(s);
    }
    TextOut& grow(int written) {
        n_ = n_ + written < N ? n_ + written : N;
        return *this;
    }
    char s_[N + kSlack];
    int n_ = 0;
};

}  // namespace varnix
