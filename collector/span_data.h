// What the agent exports: finished spans and log records, each with the
// resource (the traced process) it belongs to.  Plain values owned by the
// item, so that the exporter's thread can take them over.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "collector/trace_ids.h"

namespace varnix::agent {

struct Attr {
    std::string_view key;  // static storage
    bool varnix = false;   // exported as "varnix." + key
    bool is_int = false;
    int64_t i = 0;
    std::string s;
};

// The traced process.
struct Resource {
    int64_t pid = 0;
    std::string service_name;  // the process name, or the container name for Java
    std::string host_name;
};

struct SpanEvent {
    std::string_view name;  // the record's kind
    int64_t ts_us = 0;
    std::vector<Attr> attrs;
};

// OTLP's SpanKind values.
enum class SpanKind : int { Internal = 1, Server = 2, Client = 3 };

struct SpanData {
    TraceId trace;
    SpanId span;
    SpanId parent;
    bool has_parent = false;
    std::string name;
    SpanKind kind = SpanKind::Internal;
    int64_t start_us = 0, end_us = 0;
    std::vector<Attr> attrs;
    std::vector<SpanEvent> events;
    uint32_t dropped_events = 0;
    bool error = false;
    std::string status_message;
    std::shared_ptr<const Resource> resource;
};

// OTLP's SeverityNumber values used here.
enum class Severity : int { Info = 9, Error = 17 };

struct LogData {
    TraceId trace;
    bool has_trace = false;
    int64_t ts_us = 0;
    Severity severity = Severity::Info;
    std::string_view name;  // the record's kind
    std::string body;
    std::vector<Attr> attrs;
    std::shared_ptr<const Resource> resource;
};

// Where finished spans and log records go.  Never blocks.
class TelemetrySink {
public:
    virtual ~TelemetrySink() = default;
    virtual void span(SpanData&& s) = 0;
    virtual void log(LogData&& l) = 0;
};

}  // namespace varnix::agent
