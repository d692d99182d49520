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

// Decimal digits of u.
inline int digit_count(uint64_t u) {
    int n = 1;
    for (; u >= 10000; u /= 10000) n += 4;
    return u >= 1000 ? n + 3 : u >= 100 ? n + 2 : u >= 10 ? n + 1 : n;
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
template <int N>
class TextOut {
public:
    TextOut& text(std::string_view s) {
        // The size of a literal is a constant of the copy when it fits.
        const size_t n = s.size() <= room() ? s.size() : room();
        if (n == s.size()) std::memcpy(s_ + n_, s.data(), s.size());
        else std::memcpy(s_ + n_, s.data(), n);
        n_ += static_cast<int>(n);
        return *this;
    }
    // Would read a C string without bound: C strings go through cstr.
    TextOut& text(const char*) = delete;
    // A NUL-terminated text, read no further than what still fits; none
    // for null.
    TextOut& cstr(const char* s) { return s ? text(std::string_view(s, strnlen(s, room()))) : *this; }
    TextOut& ch(char c) {
        if (n_ < N) s_[n_++] = c;
        return *this;
    }
    TextOut& number(int64_t v, int width = 0) {
        if (room() >= static_cast<size_t>(kNumberMax)) {
            n_ += write_zero_padded(s_ + n_, v, width);
            return *this;
        }
        char buf[kNumberMax];
        return text(std::string_view(buf, static_cast<size_t>(write_zero_padded(buf, v, width))));
    }
    // "%ld.%06ld"
    TextOut& secs(int64_t s, int64_t us) {
        if (us < 0 || us >= 1'000'000 || room() < static_cast<size_t>(kNumberMax + 7))
            return number(s).ch('.').number(us, 6);
        if (s == 0) {
            s_[n_] = '0';
            n_ += 1;
        } else {
            n_ += write_zero_padded(s_ + n_, s, 0);
        }
        s_[n_] = '.';
        write_digits(s_ + n_ + 1, static_cast<uint64_t>(us), 6);
        n_ += 7;
        return *this;
    }
    // "%*.2f" of a float, with a '.' whatever the host's locale.  A float
    // has 24 significant bits, so v x 100 is exact in a double, and rounding
    // that to the nearest integer (ties to even, as printf rounds) gives
    // printf's digits without a floating-point formatter, which would tie
    // the library to libm.
    TextOut& fixed2(float v, int width) {
        char buf[kNumberMax + 8];
        const double x = static_cast<double>(v) * 100.0;
        std::string_view s;
        if (x != x) {
            s = std::string_view("nan");
        } else if (x >= 9e18 || x <= -9e18) {
            s = std::string_view(x > 0 ? "inf" : "-inf");  // inf; no average reaches such sizes
        } else {
            const double ax = x < 0 ? -x : x;
            auto cents = static_cast<uint64_t>(ax);
            const double frac = ax - static_cast<double>(cents);
            if (frac > 0.5 || (frac == 0.5 && (cents & 1))) ++cents;
            int n = 0;
            if (__builtin_signbit(v)) buf[n++] = '-';
            n += write_zero_padded(buf + n, static_cast<int64_t>(cents / 100), 1);
            buf[n++] = '.';
            n += write_zero_padded(buf + n, static_cast<int64_t>(cents % 100), 2);
            s = std::string_view(buf, static_cast<size_t>(n));
        }
        for (int pad = width - static_cast<int>(s.size()); pad > 0; --pad) ch(' ');
        return text(s);
    }
    const char* data() const { return s_; }
    int size() const { return n_; }

private:
    size_t room() const { return static_cast<size_t>(N - n_); }
    char s_[N];
    int n_ = 0;
};

}  // namespace varnix
