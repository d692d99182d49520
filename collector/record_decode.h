// Trace records as the agent reads them: the framing checked, the fields by
// name, trimmed of padding, numbers parsed, call records parsed into their
// figures, the local time turned into UTC.  A record that does not have the
// form the library gives it is reported, never guessed at.
#pragma once

#include <string>
#include <string_view>

#include "collector/record_fields.h"
#include "collector/record_time.h"
#include "varnix_collector.h"

namespace varnix::agent {

// msgrcv's size for a message longer than a record (it was cut to one).
inline constexpr long kOversized = -1;

// One received message, decoded.
struct Decoded {
    Record rec;               // views into the message
    std::string error;        // empty when the record is well formed
    bool sql = false;         // an SQL text piece: `rec` holds its header only
    std::string_view piece;   // an SQL piece's text field, padding included
    std::string_view date, time;  // the header's local date and time
};

// `size` is what msgrcv returned for queue `queue`.  A record without a
// readable date and time is given `now_us`.  `d` is reused between calls.
void decode_record(const TRAN_LOG_MSG& m, long size, int queue, LocalTime& clock, int64_t now_us, Decoded& d);

// The bytes of a malformed message as one text: printable ASCII as it is,
// every other byte as \xNN, trailing blanks left out.
std::string malformed_bytes(const TRAN_LOG_MSG& m, long size);

}  // namespace varnix::agent
