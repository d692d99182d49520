// Writers of the fixed-width fields of a trace record.  Every field is
// left-aligned, space-padded or cut to its width, and followed by one space;
// no terminating NUL is ever written into a record.
//
// set_log_field takes the width at run time; put_field and put_number take it
// as a template argument, which lets the compiler turn the padding and most
// copies into a few stores: those are the writers of the record path.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <type_traits>

namespace varnix {

// A text argument: pointer and length (-1 = NUL-terminated); null = blank.
struct Text {
    const char* p = nullptr;
    int32_t len = -1;
};

// With copy 0 only the padding and the trailing space are written.
void set_log_field(const char* src, int len, char* dst, int width, int copy);
inline void set_log_field(Text t, char* dst, int width) { set_log_field(t.p, t.len, dst, width, 1); }

// A number zero-padded to the field's width ("%0*ld"), cut to it as any
// text is, and the trailing space.
void put_number(char* dst, int width, int64_t v);

namespace field_detail {

// n bytes from src to dst, n below Max: at most two moves of one power-of-two
// size, which may overlap each other but never reach beyond the n bytes.
template <size_t Max>
inline void copy_short(char* dst, const char* src, size_t n) {
    if constexpr (Max > 32) {
        if (n > 32) {
            std::memcpy(dst, src, n);
            return;
        }
    }
    auto two = [&](auto size) {
        std::memcpy(dst, src, size);
        std::memcpy(dst + n - size, src + n - size, size);
    };
    if (Max > 16 && n >= 16) return two(std::integral_constant<size_t, 16>{});
    if (Max > 8 && n >= 8) return two(std::integral_constant<size_t, 8>{});
    if (Max > 4 && n >= 4) return two(std::integral_constant<size_t, 4>{});
    if (Max > 2 && n >= 2) return two(std::integral_constant<size_t, 2>{});
    if (n == 1) dst[0] = src[0];
}

// "00" to "99": two digits per division.
struct DigitPairs {
    char c[200];
};
inline constexpr DigitPairs kPairs = [] {
    DigitPairs t{};
    for (int i = 0; i < 100; ++i) {
        t.c[2 * i] = static_cast<char>('0' + i / 10);
        t.c[2 * i + 1] = static_cast<char>('0' + i % 10);
    }
    return t;
}();

constexpr uint64_t pow10(int n) { return n == 0 ? 1 : 10 * pow10(n - 1); }

}  // namespace field_detail

// The last n decimal digits of u, zero-padded, written from the right: four
// per division, as two pairs.
inline void write_digits(char* out, uint64_t u, int n) {
    const auto pair = [](char* at, uint32_t two) { std::memcpy(at, field_detail::kPairs.c + 2 * two, 2); };
    for (; n >= 4; u /= 10000) {
        n -= 4;
        const auto four = static_cast<uint32_t>(u % 10000);
        pair(out + n, four / 100);
        pair(out + n + 2, four % 100);
    }
    if (n >= 2) {
        n -= 2;
        pair(out + n, static_cast<uint32_t>(u % 100));
        u /= 100;
    }
    if (n == 1) out[0] = static_cast<char>('0' + u % 10);
}

// The bytes of `t` that a field of width W shows: none for a null text, the
// given length, or the text up to its NUL; never more than W, and a text
// without length is read no further than W bytes.
template <size_t W>
inline size_t shown_len(Text t) {
    if (!t.p) return 0;
    if (t.len >= 0) return static_cast<size_t>(t.len) < W ? static_cast<size_t>(t.len) : W;
    if constexpr (W <= 4) {
        size_t n = 0;
        while (n < W && t.p[n] != '\0') ++n;
        return n;
    } else {
        return strnlen(t.p, W);
    }
}

// The bytes of `src` (n of them, at most W) as a field of width W.
template <size_t W>
inline void put_bytes(char* dst, const char* src, size_t n) {
    if (n >= W) {
        std::memcpy(dst, src, W);
    } else if (W > 64 && n > 32) {  // a long text in a text column: blanked only past it
        std::memcpy(dst, src, n);
        std::memset(dst + n, ' ', W - n);
    } else {
        std::memset(dst, ' ', W);
        field_detail::copy_short<W>(dst, src, n);
    }
    dst[W] = ' ';
}

// set_log_field of `t` into a field of width W.
template <size_t W>
inline void put_field(char* dst, Text t) {
    put_bytes<W>(dst, t.p, shown_len<W>(t));
}

// put_number into a field of width W: the digits written directly when the
// number fits the field, as it nearly always does.
template <int W>
inline void put_number(char* dst, int64_t v) {
    static_assert(W >= 1 && W <= 18);
    if (v < 0 || static_cast<uint64_t>(v) >= field_detail::pow10(W)) return put_number(dst, W, v);
    write_digits(dst, static_cast<uint64_t>(v), W);
    dst[W] = ' ';
}

}  // namespace varnix
