// Writers of the numbers and texts of record fields: the same characters as
// the printf conversions the records are defined by ("%d", "%0*ld", "%.*lu",
// "%ld.%06ld", "%6.2f", "%s"), written directly.  Records are built on every
// traced call, where the format parser would cost more than the rest of the
// record.
#pragma once

#include <cstdint>
#include <cstring>
#include <string_view>

namespace varnix {

// Longest text write_zero_padded writes: a sign, 19 digits, or the width.
inline constexpr int kNumberMax = 20;

// "%0*lld" of v: the sign, then the digits zero-padded so that the whole is
// at least `width` (at most kNumberMax) characters.  Returns the length.
inline int write_zero_padded(char* out, int64_t v, int width) {
    // "00" to "99": two digits per division.
    static constexpr auto kPairs = [] {
        struct {
            char c[200];
        } t{};
        for (int i = 0; i < 100; ++i) {
            t.c[2 * i] = static_cast<char>('0' + i / 10);
            t.c[2 * i + 1] = static_cast<char>('0' + i % 10);
        }
        return t;
    }();
    if (width > kNumberMax) width = kNumberMax;
    char digits[kNumberMax];
    uint64_t u = v < 0 ? 0 - static_cast<uint64_t>(v) : static_cast<uint64_t>(v);
    int n = kNumberMax;  // digits fill digits[n..] from the right
    while (u >= 100) {
        const auto pair = static_cast<unsigned>(u % 100);
        u /= 100;
        n -= 2;
        std::memcpy(digits + n, kPairs.c + 2 * pair, 2);
    }
    if (u >= 10) {
        n -= 2;
        std::memcpy(digits + n, kPairs.c + 2 * u, 2);
    } else {
        digits[--n] = static_cast<char>('0' + u);
    }
    int len = 0;
    if (v < 0) out[len++] = '-';
    for (int pad = width - len - (kNumberMax - n); pad > 0; --pad) out[len++] = '0';
    std::memcpy(out + len, digits + n, static_cast<size_t>(kNumberMax - n));
    return len + kNumberMax - n;
}

// A text of at most N characters, built piece by piece; what does not fit is
// cut off.
template <int N>
class TextOut {
public:
    TextOut& text(std::string_view s) {
        const size_t n = s.size() < room() ? s.size() : room();
        std::memcpy(s_ + n_, s.data(), n);
        n_ += static_cast<int>(n);
        return *this;
    }
    // A NUL-terminated text, read no further than what still fits.
    TextOut& text(const char* s) { return s ? text(std::string_view(s, strnlen(s, room()))) : *this; }
    TextOut& ch(char c) { return text(std::string_view(&c, 1)); }
    TextOut& number(int64_t v, int width = 0) {
        char buf[kNumberMax + 1];
        return text(std::string_view(buf, static_cast<size_t>(write_zero_padded(buf, v, width))));
    }
    // "%ld.%06ld"
    TextOut& secs(int64_t s, int64_t us) { return number(s).ch('.').number(us, 6); }
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
            s = "nan";
        } else if (x >= 9e18 || x <= -9e18) {
            s = x > 0 ? "inf" : "-inf";  // inf; no average reaches such sizes
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
