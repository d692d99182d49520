// Arithmetic on numbers read from the shared blocks.  Any process that may
// attach them can write any value there, so a sum, a difference or a time
// built from such a number stops at the limits of its type instead of
// overflowing: the record carries the limit, and the host goes on.
#pragma once

#include <concepts>
#include <cstdint>
#include <limits>
#include <utility>

namespace varnix {

template <std::integral T>
constexpr T sat_add(T a, T b) {
    T r;
    if (!__builtin_add_overflow(a, b, &r)) return r;
    return b > 0 ? std::numeric_limits<T>::max() : std::numeric_limits<T>::min();
}

template <std::integral T>
constexpr T sat_sub(T a, T b) {
    T r;
    if (!__builtin_sub_overflow(a, b, &r)) return r;
    return b < 0 ? std::numeric_limits<T>::max() : std::numeric_limits<T>::min();
}

template <std::integral T>
constexpr T sat_mul(T a, T b) {
    T r;
    if (!__builtin_mul_overflow(a, b, &r)) return r;
    return (a < 0) != (b < 0) ? std::numeric_limits<T>::min() : std::numeric_limits<T>::max();
}

// `v` in the range of To, at its nearer end when outside.
template <std::integral To, std::integral From>
constexpr To clamp_to(From v) {
    if (std::cmp_less(v, std::numeric_limits<To>::min())) return std::numeric_limits<To>::min();
    if (std::cmp_greater(v, std::numeric_limits<To>::max())) return std::numeric_limits<To>::max();
    return static_cast<To>(v);
}

static_assert(sat_add<int64_t>(INT64_MAX, 1) == INT64_MAX && sat_sub<int64_t>(INT64_MIN, 1) == INT64_MIN);
static_assert(sat_sub<int64_t>(0, INT64_MIN) == INT64_MAX && sat_mul<int64_t>(-INT64_MAX, 2) == INT64_MIN);
static_assert(clamp_to<int32_t>(int64_t{1} << 40) == INT32_MAX && clamp_to<int32_t>(-(int64_t{1} << 40)) == INT32_MIN);
static_assert(clamp_to<int32_t>(uint64_t{7}) == 7);

}  // namespace varnix
