// Trace and span ids.  Every record with the same GID belongs to one trace,
// in every process and on every host, so the trace id is a function of the
// GID alone: the 128-bit FNV-1a hash of the GID's bytes (trailing blanks
// removed), most significant byte first; the one GID whose hash is zero gets
// 1 instead, since an all-zero id is invalid.  Span ids only need to be
// unique: a counter, spread by an odd multiplier, over a random start.
#pragma once

#include <cstdint>
#include <string_view>

namespace varnix::agent {

struct TraceId {
    uint8_t b[16] = {};
    bool operator==(const TraceId&) const = default;
};

struct SpanId {
    uint8_t b[8] = {};
    bool operator==(const SpanId&) const = default;
};

TraceId trace_id_of_gid(std::string_view gid);

class SpanIds {
public:
    SpanIds();  // a random start
    explicit SpanIds(uint64_t start) : state_(start) {}
    SpanId next();

private:
    uint64_t state_;
};

// What a record was exported under: the timeline writes it on the record's line.
struct SpanRef {
    TraceId trace;
    SpanId span;
    bool has_trace = false;
    bool has_span = false;
    int64_t duration_us = -1;  // a service end's duration, when known
};

}  // namespace varnix::agent
