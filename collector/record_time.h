// Record times: the library stamps a record with the traced host's local date
// ("YYYYMMDD") and time ("HHMMSSuuuuuu"); the timeline and the traces carry
// UTC microseconds since the epoch.  The agent runs on the traced host, so
// its own time zone is theirs.
#pragma once

#include <cstdint>
#include <string_view>

namespace varnix::agent {

class LocalTime {
public:
    // Microseconds since the epoch, or -1 when the texts are not a date and
    // a time.  One mktime per hour of local time seen: a change of the UTC
    // offset falls on a whole hour.
    int64_t epoch_us(std::string_view date, std::string_view time);

private:
    char hour_key_[10] = {};  // YYYYMMDDHH of the cached hour
    int64_t hour_epoch_s_ = -1;
};

}  // namespace varnix::agent
