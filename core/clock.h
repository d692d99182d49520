// The wall clock as records and logs stamp it.
#pragma once

#include <sys/time.h>
#include <time.h>

#include <cstdint>

#include "core/saturate.h"

namespace varnix {

// Now; the epoch in the (never seen) case that the clock cannot be read.
inline timeval clock_now() {
    timeval tv{};
    if (gettimeofday(&tv, nullptr) != 0) return timeval{};
    return tv;
}

// Microseconds since the epoch; a time read from a shared block may be any
// value, so the count saturates.
constexpr int64_t usec_of(const timeval& tv) {
    return sat_add(sat_mul<int64_t>(tv.tv_sec, 1'000'000), static_cast<int64_t>(tv.tv_usec));
}
static_assert(usec_of(timeval{1'000'000'000'000'000, 5}) == INT64_MAX && usec_of(timeval{-1, 5}) == -999'995);

// Microseconds from `from` to `to`, as usec_of(to) - usec_of(from) saturating.
// Times of this era (seconds and microseconds non-negative and far below the
// bounds) take the short way, which cannot overflow.
constexpr int64_t usec_between(const timeval& from, const timeval& to) {
    const auto secs = static_cast<uint64_t>(from.tv_sec) | static_cast<uint64_t>(to.tv_sec);
    const auto usecs = static_cast<uint64_t>(from.tv_usec) | static_cast<uint64_t>(to.tv_usec);
    if ((secs >> 42 | usecs >> 31) == 0) [[likely]]
        return (to.tv_sec - from.tv_sec) * 1'000'000 + (to.tv_usec - from.tv_usec);
    return sat_sub(usec_of(to), usec_of(from));
}
static_assert(usec_between(timeval{10, 999'999}, timeval{12, 1}) == 1'000'002 &&
              usec_between(timeval{-1, 0}, timeval{INT64_MAX, 0}) == INT64_MAX &&
              usec_between(timeval{0, INT64_MAX}, timeval{0, 0}) == -INT64_MAX);

// Microseconds of the monotonic clock, for deadlines of bounded waits.
inline int64_t monotonic_us() {
    timespec ts{};
    (void)clock_gettime(CLOCK_MONOTONIC, &ts);  // CLOCK_MONOTONIC is always there
    return static_cast<int64_t>(ts.tv_sec) * 1'000'000 + ts.tv_nsec / 1000;
}

}  // namespace varnix
