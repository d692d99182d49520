#include "collector/timeline.h"

#include "collector/json_line.h"

namespace varnix::agent {

void timeline_line(const Record& r, const SpanRef& ref, std::string& out) {
    JsonLine j(out);
    j.num("schema", kSchemaVersion);
    j.num("queue", r.queue);
    j.str("record", r.name);
    j.num("ts_us", r.ts_us);
    if (ref.has_trace) j.hex("trace_id", ref.trace.b, sizeof ref.trace.b);
    if (ref.has_span) j.hex("span_id", ref.span.b, sizeof ref.span.b);
    for (const Value& v : r.f.all()) {
        if (v.number)
            j.num(v.key, v.num);
        else
            j.str(v.key, v.text);
    }
    if (ref.duration_us >= 0) j.num("duration_us", ref.duration_us);
    j.end();
}

void malformed_line(int queue, std::string_view why, std::string_view bytes, int64_t ts_us, std::string& out) {
    JsonLine j(out);
    j.num("schema", kSchemaVersion);
    j.num("queue", queue);
    j.num("ts_us", ts_us);
    j.str("malformed", why);
    j.str("bytes", bytes);
    j.end();
}

}  // namespace varnix::agent
