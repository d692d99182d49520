// The agent's JSON Lines output: one object per record, every one with the
// schema version, its queue, its kind, its UTC time in microseconds and the
// trace and span it was exported under, then its fields (README: "JSON
// timeline").
#pragma once

#include <string>
#include <string_view>

#include "collector/record_fields.h"
#include "collector/trace_ids.h"

namespace varnix::agent {

// Raised whenever a field changes name, type or meaning.
inline constexpr int kSchemaVersion = 1;

// Appends the line of a record to `out`.
void timeline_line(const Record& r, const SpanRef& ref, std::string& out);

// Appends the line of a malformed record: its queue, the reason and its bytes.
void malformed_line(int queue, std::string_view why, std::string_view bytes, int64_t ts_us, std::string& out);

}  // namespace varnix::agent
