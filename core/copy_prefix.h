// Bounded copy of a text prefix into a fixed character array.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstring>

namespace varnix {

// At most `max` characters of `src` (and never more than the array holds),
// always NUL-terminated.
template <size_t N>
void copy_prefix(char (&dst)[N], const char* src, size_t max) {
    size_t n = strnlen(src, std::min(max, N - 1));
    std::memcpy(dst, src, n);
    dst[n] = '\0';
}

}  // namespace varnix
