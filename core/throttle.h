// Lets one caller through per interval, whichever thread comes first: for
// diagnostic lines that a busy machine would otherwise repeat on every call,
// and for look-ups that must not cost a system call per record.  The others
// go on at once; nobody waits.
#pragma once

#include <atomic>
#include <cstdint>

#include "core/clock.h"

namespace varnix {

class Throttle {
public:
    explicit constexpr Throttle(int64_t interval_us) : interval_us_(interval_us), last_us_(-interval_us) {}
    Throttle(const Throttle&) = delete;
    Throttle& operator=(const Throttle&) = delete;

    // True for the one caller that moves the time of the last pass on.
    bool pass() {
        const int64_t now = monotonic_us();
        int64_t last = last_us_.load(std::memory_order_relaxed);
        return now - last >= interval_us_ && last_us_.compare_exchange_strong(last, now, std::memory_order_relaxed);
    }

private:
    const int64_t interval_us_;
    std::atomic<int64_t> last_us_;
};

}  // namespace varnix
