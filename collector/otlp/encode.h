// Spans and log records as OTLP export request bodies (protobuf), grouped by
// the traced process they come from.
#pragma once

#include <span>
#include <string>

#include "collector/span_data.h"

namespace varnix::agent {

// The serialized ExportTraceServiceRequest of `spans`.
std::string encode_traces(std::span<const SpanData> spans);
// The serialized ExportLogsServiceRequest of `logs`.
std::string encode_logs(std::span<const LogData> logs);

}  // namespace varnix::agent
