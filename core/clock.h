// The wall clock as records and logs stamp it.
#pragma once

#include <sys/time.h>

namespace varnix {

// Now; the epoch in the (never seen) case that the clock cannot be read.
inline timeval clock_now() {
    timeval tv{};
    if (gettimeofday(&tv, nullptr) != 0) return timeval{};
    return tv;
}

}  // namespace varnix
