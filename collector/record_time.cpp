#include "collector/record_time.h"

#include <time.h>

#include <cstring>

namespace varnix::agent {
namespace {

// The value of `n` digits at `s`, or -1.
int digits(const char* s, int n) {
    int v = 0;
    for (int i = 0; i < n; ++i) {
        if (s[i] < '0' || s[i] > '9') return -1;
        v = v * 10 + (s[i] - '0');
    }
    return v;
}

}  // namespace

int64_t LocalTime::epoch_us(std::string_view date, std::string_view time) {
    if (date.size() != 8 || time.size() != 12) return -1;
    const int min = digits(time.data() + 2, 2), sec = digits(time.data() + 4, 2), us = digits(time.data() + 6, 6);
    if (min < 0 || min > 59 || sec < 0 || sec > 60 || us < 0) return -1;
    if (std::memcmp(hour_key_, date.data(), 8) != 0 || std::memcmp(hour_key_ + 8, time.data(), 2) != 0) {
        tm t{};
        t.tm_year = digits(date.data(), 4) - 1900;
        t.tm_mon = digits(date.data() + 4, 2) - 1;
        t.tm_mday = digits(date.data() + 6, 2);
        t.tm_hour = digits(time.data(), 2);
        t.tm_isdst = -1;
        if (t.tm_year < 0 || t.tm_mon < 0 || t.tm_mon > 11 || t.tm_mday < 1 || t.tm_mday > 31 || t.tm_hour < 0 ||
            t.tm_hour > 23)
            return -1;
        const time_t at = mktime(&t);
        if (at == static_cast<time_t>(-1)) return -1;
        std::memcpy(hour_key_, date.data(), 8);
        std::memcpy(hour_key_ + 8, time.data(), 2);
        hour_epoch_s_ = at;
    }
    return (hour_epoch_s_ + min * 60 + sec) * 1'000'000 + us;
}

}  // namespace varnix::agent
