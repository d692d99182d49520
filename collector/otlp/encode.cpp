#include "collector/otlp/encode.h"

#include <google/protobuf/arena.h>

#include <cstring>
#include <map>

#include "otlp/otlp.pb.h"
#include "varnix.h"  // VARNIX_VERSION

namespace varnix::agent {
namespace {

namespace pb = ::varnix::otlp;

constexpr const char* kAgentName = "varnix-agent";

uint64_t nanos(int64_t us) { return us > 0 ? static_cast<uint64_t>(us) * 1000u : 0; }

std::string bytes_of(const uint8_t* b, size_t n) { return std::string(reinterpret_cast<const char*>(b), n); }

void put(pb::KeyValue* kv, std::string_view key, std::string_view v) {
    kv->set_key(key.data(), key.size());
    kv->mutable_value()->set_string_value(v.data(), v.size());
}

void put(pb::KeyValue* kv, std::string_view key, int64_t v) {
    kv->set_key(key.data(), key.size());
    kv->mutable_value()->set_int_value(v);
}

template <typename Repeated>
void put_attrs(const std::vector<Attr>& attrs, Repeated* out) {
    constexpr std::string_view kPrefix = "varnix.";
    char key[64];
    for (const Attr& a : attrs) {
        std::string_view k = a.key;
        if (a.varnix && a.key.size() <= sizeof key - kPrefix.size()) {
            std::memcpy(key, kPrefix.data(), kPrefix.size());
            std::memcpy(key + kPrefix.size(), a.key.data(), a.key.size());
            k = std::string_view(key, kPrefix.size() + a.key.size());
        }
        pb::KeyValue* kv = out->Add();
        if (a.is_int)
            put(kv, k, a.i);
        else
            put(kv, k, a.s);
    }
}

void put_resource(const Resource& r, pb::Resource* out) {
    put(out->add_attributes(), "service.name", r.service_name);
    if (!r.host_name.empty()) put(out->add_attributes(), "host.name", r.host_name);
    put(out->add_attributes(), "process.pid", r.pid);
    put(out->add_attributes(), "telemetry.sdk.name", kAgentName);
    put(out->add_attributes(), "telemetry.sdk.version", VARNIX_VERSION);
    put(out->add_attributes(), "telemetry.sdk.language", "cpp");
}

void put_scope(pb::InstrumentationScope* scope) {
    scope->set_name(kAgentName);
    scope->set_version(VARNIX_VERSION);
}

void put_span(const SpanData& s, pb::Span* out) {
    out->set_trace_id(bytes_of(s.trace.b, sizeof s.trace.b));
    out->set_span_id(bytes_of(s.span.b, sizeof s.span.b));
    if (s.has_parent) out->set_parent_span_id(bytes_of(s.parent.b, sizeof s.parent.b));
    out->set_name(s.name);
    out->set_kind(static_cast<pb::Span::SpanKind>(s.kind));
    out->set_start_time_unix_nano(nanos(s.start_us));
    out->set_end_time_unix_nano(nanos(s.end_us));
    put_attrs(s.attrs, out->mutable_attributes());
    for (const SpanEvent& e : s.events) {
        pb::Span::Event* pe = out->add_events();
        pe->set_time_unix_nano(nanos(e.ts_us));
        pe->set_name(std::string(e.name));
        put_attrs(e.attrs, pe->mutable_attributes());
    }
    out->set_dropped_events_count(s.dropped_events);
    if (s.error) {
        out->mutable_status()->set_code(pb::Status::STATUS_CODE_ERROR);
        out->mutable_status()->set_message(s.status_message);
    }
}

void put_log(const LogData& l, pb::LogRecord* out) {
    out->set_time_unix_nano(nanos(l.ts_us));
    out->set_observed_time_unix_nano(nanos(l.ts_us));
    out->set_severity_number(static_cast<int32_t>(l.severity));
    out->set_severity_text(l.severity == Severity::Error ? "ERROR" : "INFO");
    out->mutable_body()->set_string_value(l.body);
    put(out->add_attributes(), "varnix.record", l.name);
    put_attrs(l.attrs, out->mutable_attributes());
    if (l.has_trace) out->set_trace_id(bytes_of(l.trace.b, sizeof l.trace.b));
}

// One resource entry per traced process, each with one scope: the agent.
template <typename Request, typename Item, typename ResourceEntry, typename ScopeEntry, typename Leaf>
std::string encode(std::span<const Item> items, ResourceEntry* (Request::*add_resource)(),
                   ScopeEntry* (ResourceEntry::*add_scope)(), Leaf* (ScopeEntry::*add_leaf)(),
                   void (*put_item)(const Item&, Leaf*)) {
    google::protobuf::Arena arena;  // one allocation for the many small parts
    Request& req = *google::protobuf::Arena::CreateMessage<Request>(&arena);
    std::map<const Resource*, ScopeEntry*> scopes;
    for (const Item& i : items) {
        ScopeEntry*& scope = scopes[i.resource.get()];
        if (!scope) {
            ResourceEntry* r = (req.*add_resource)();
            if (i.resource) put_resource(*i.resource, r->mutable_resource());
            scope = (r->*add_scope)();
            put_scope(scope->mutable_scope());
        }
        put_item(i, (scope->*add_leaf)());
    }
    return req.SerializeAsString();
}

}  // namespace

std::string encode_traces(std::span<const SpanData> spans) {
    return encode(spans, &pb::ExportTraceServiceRequest::add_resource_spans, &pb::ResourceSpans::add_scope_spans,
                  &pb::ScopeSpans::add_spans, put_span);
}

std::string encode_logs(std::span<const LogData> logs) {
    return encode(logs, &pb::ExportLogsServiceRequest::add_resource_logs, &pb::ResourceLogs::add_scope_logs,
                  &pb::ScopeLogs::add_log_records, put_log);
}

}  // namespace varnix::agent
