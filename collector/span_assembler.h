// Turns the records of each traced thread into spans (README: "OTLP export").
//
// Each thread's open services form a stack, as in the library: a start pushes
// a span (SERVER when it is the thread's outermost service or opens another
// trace, else an INTERNAL child of the enclosing service), an end pops it, an
// error marks it.  A call record arrives when its call finishes, after the
// records of the calls it made: those wait, in their service, until a record
// of an enclosing call adopts them or the service ends and takes them itself,
// so that no span names a parent that is never exported.  SQL statements
// precede their DBIO call's record and are carried by its span; a DBIO call
// that sends its statements but no record of its own (faster than its limit)
// gets a span made of its statements.  Notices,
// errors and events inside a service become events of its span; outside one,
// log records.
//
// Owned by the draining thread; nothing here is shared.
#pragma once

#include <cstdint>
#include <memory>
#include <unordered_map>
#include <vector>

#include "collector/record_fields.h"
#include "collector/span_data.h"

namespace varnix::agent {

class SpanAssembler {
public:
    // `sink` null: spans are tracked for their ids and durations only.
    explicit SpanAssembler(TelemetrySink* sink, SpanIds ids = SpanIds()) : sink_(sink), ids_(ids) {}

    // Every well-formed record but SQL pieces; what it was exported under.
    SpanRef record(const Record& r);
    // A joined SQL statement and the record of its thread that followed it.
    SpanRef statement(const Record& stmt, const Record* next);

    // The agent learnt that a thread's tracing context, or a whole process,
    // is gone: services still open there end now, with status ERROR.
    void thread_gone(int64_t pid, int64_t tid, int64_t now_us);
    void process_gone(int64_t pid, int64_t now_us);

    size_t open_services() const;

private:
    struct PendingCall {
        SpanData span;
        int level;
    };
    struct Service {
        SpanData span;
        std::string svc_id;
        std::vector<PendingCall> calls;  // finished, waiting for their parent
        std::string error_text;          // the last error information's text
    };
    struct Statement {
        std::string sql;
        int64_t ts_us, elapsed_us;
    };
    struct Thread {
        std::vector<Service> stack;
        std::vector<Statement> sql;  // statements of the DBIO call whose record may come
        std::string sql_func;        // that call's function
        SpanId dbio_span;            // the span id that call gets
        bool dbio_span_set = false;
    };

    SpanRef start(Thread& t, const Record& r);
    SpanRef end(Thread& t, const Record& r);
    SpanRef error(Thread& t, const Record& r);
    SpanRef call(Thread& t, const Record& r);
    SpanRef notice(Thread& t, const Record& r);
    void statements_span(Thread& t, const Record& last);
    int find_service(const Thread& t, const Record& r) const;
    void close(Thread& t, int64_t end_us, const char* why);  // the innermost service
    void export_span(SpanData&& s);
    void add_event(Service& s, const Record& r, std::vector<Attr>&& attrs);
    void flush_calls(Service& s, size_t keep);
    std::shared_ptr<const Resource> resource_of(const Record& r);
    void forget_if_idle(const ThreadKey& k);

    TelemetrySink* sink_;
    SpanIds ids_;
    std::unordered_map<ThreadKey, Thread, ThreadKeyHash> threads_;
    std::unordered_map<int64_t, std::shared_ptr<const Resource>> resources_;  // by pid
};

}  // namespace varnix::agent
