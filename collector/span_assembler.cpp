#include "collector/span_assembler.h"

#include <algorithm>
#include <cstdio>
#include <span>

namespace varnix::agent {
namespace {

constexpr size_t kMaxEvents = 128;        // per span; more are counted as dropped
constexpr size_t kMaxPendingCalls = 64;  // per service; the oldest then take the service as parent
constexpr size_t kMaxStatements = 8;      // per DBIO span (the library keeps 5)

struct Rename {
    std::string_view field;
    std::string_view key;
};
// Fields with a semantic-convention name; the others are exported as varnix.<field>.
constexpr Rename kConventions[] = {
    {"tid", "thread.id"},         {"func_nm", "code.function"}, {"module_nm", "code.namespace"},
    {"source_nm", "code.filepath"}, {"line_no", "code.lineno"},   {"db_user", "db.user"},
    {"db_sid", "db.name"},        {"sql", "db.statement"},
};
// On the resource, or the library's own bookkeeping.
constexpr std::string_view kLeftOut[] = {"log_type", "proc_nm", "host_nm", "pid", "idx", "pidx"};
// What a call's span, or an event, shares with its service's span, and a
// call's figures its span's times already tell.
constexpr std::string_view kShared[] = {"gid",     "svc_id",   "cls_cd",     "dtl_cd",
                                        "tid",     "start_us", "end_us",     "elapsed_us",
                                        "trc_lvl", "call_trc_depth_max"};

bool listed(std::span<const std::string_view> list, std::string_view key) {
    return std::find(list.begin(), list.end(), key) != list.end();
}

// The record's fields as attributes; `within` leaves out what its service's span carries.
void attrs_of(const Fields& f, std::vector<Attr>& out, bool within = false) {
    out.reserve(out.size() + f.all().size());
    for (const Value& v : f.all()) {
        if (listed(kLeftOut, v.key) || (within && listed(kShared, v.key))) continue;
        Attr a;
        a.key = v.key;
        a.varnix = true;
        for (const Rename& r : kConventions)
            if (r.field == v.key) {
                a.key = r.key;
                a.varnix = false;
            }
        a.is_int = v.number;
        a.i = v.num;
        if (!v.number) a.s.assign(v.text);
        out.push_back(std::move(a));
    }
}

// The record's trace: its GID's, or for a record without a GID one of its
// own, made of its thread and time.
TraceId trace_for(const Record& r) {
    const std::string_view gid = r.f.text_of("gid");
    if (!gid.empty()) return trace_id_of_gid(gid);
    char own[64];
    const int n = std::snprintf(own, sizeof own, "varnix:%lld:%lld:%lld", static_cast<long long>(r.thread.pid),
                                static_cast<long long>(r.thread.tid), static_cast<long long>(r.ts_us));
    return trace_id_of_gid(std::string_view(own, static_cast<size_t>(n)));
}

SpanRef ref_of(const SpanData& s) {
    SpanRef r;
    r.trace = s.trace;
    r.span = s.span;
    r.has_trace = r.has_span = true;
    return r;
}

std::string call_error(const Record& r) {
    char why[64] = "";
    const int64_t rc = r.f.number_of("rc"), sql_code = r.f.number_of("sql_code");
    if (r.log_type == 'B' && sql_code < 0)
        std::snprintf(why, sizeof why, "SQLCODE %lld", static_cast<long long>(sql_code));
    else if (rc != 0)
        std::snprintf(why, sizeof why, "return code %lld", static_cast<long long>(rc));
    return why;
}

}  // namespace

SpanRef SpanAssembler::record(const Record& r) {
    Thread& t = threads_[r.thread];
    SpanRef ref;
    switch (r.log_type) {
        case '1': ref = start(t, r); break;
        case '2': ref = end(t, r); break;
        case '9': ref = error(t, r); break;
        case 'B':
        case 'C': ref = call(t, r); break;
        default: ref = notice(t, r);
    }
    forget_if_idle(r.thread);
    return ref;
}

SpanRef SpanAssembler::statement(const Record& stmt, const Record* next) {
    Thread& t = threads_[stmt.thread];
    if (!t.dbio_span_set) {
        t.dbio_span = ids_.next();
        t.dbio_span_set = true;
        t.sql_func.assign(stmt.f.text_of("func_nm"));
    }
    if (t.sql.size() < kMaxStatements)
        t.sql.push_back({sink_ ? std::string(stmt.f.text_of("sql")) : std::string(), stmt.ts_us,
                         stmt.f.number_of("elapsed_us")});
    SpanRef ref;
    ref.trace = trace_for(stmt);
    ref.span = t.dbio_span;
    ref.has_trace = ref.has_span = true;
    // A call's statements follow each other, then its record, if it sends one.
    const bool same_call =
        next && next->thread == stmt.thread &&
        (next->log_type == 'B' || (next->log_type == 'Q' && next->f.number_of("slot") > stmt.f.number_of("slot") &&
                                   next->f.number_of("sql_rec_cnt") == stmt.f.number_of("sql_rec_cnt")));
    if (!same_call) {
        statements_span(t, stmt);
        forget_if_idle(stmt.thread);
    }
    return ref;
}

// The span of a DBIO call known only from its statements: from the start of
// the first to the end of the last, as their times and durations tell.
void SpanAssembler::statements_span(Thread& t, const Record& last) {
    SpanData c;
    c.trace = trace_for(last);
    c.span = t.dbio_span;
    c.kind = SpanKind::Client;
    c.name = t.sql_func.empty() ? "DBIO" : t.sql_func;
    c.start_us = t.sql.front().ts_us - t.sql.front().elapsed_us;
    c.end_us = c.start_us;
    Attr statements{"db.statement", false, false, 0, {}};
    for (const Statement& s : t.sql) {
        c.end_us += s.elapsed_us;
        statements.s.append(statements.s.empty() ? "" : "\n").append(s.sql);
    }
    c.attrs.push_back(std::move(statements));
    t.sql.clear();
    t.dbio_span_set = false;
    if (!sink_) return;
    c.resource = resource_of(last);
    if (!t.stack.empty() && t.stack.back().span.trace == c.trace) {
        c.parent = t.stack.back().span.span;
        c.has_parent = true;
    }
    export_span(std::move(c));
}

SpanRef SpanAssembler::start(Thread& t, const Record& r) {
    const int64_t depth = r.f.number_of("depth");
    const size_t level = depth >= 1 ? static_cast<size_t>(depth) : t.stack.size() + 1;
    while (!t.stack.empty() && t.stack.size() >= level)
        close(t, r.ts_us, "a new service started at its depth before it ended");
    Service s;
    s.svc_id.assign(r.f.text_of("svc_id"));
    s.span.trace = trace_for(r);
    s.span.span = ids_.next();
    if (!t.stack.empty() && t.stack.back().span.trace == s.span.trace) {
        s.span.parent = t.stack.back().span.span;
        s.span.has_parent = true;
    } else {
        s.span.kind = SpanKind::Server;  // the thread's outermost service, or another trace's
    }
    s.span.name = s.svc_id.empty() ? std::string(r.name) : s.svc_id;
    s.span.start_us = r.ts_us;
    if (sink_) {
        attrs_of(r.f, s.span.attrs);
        s.span.resource = resource_of(r);
    }
    t.stack.push_back(std::move(s));
    return ref_of(t.stack.back().span);
}

SpanRef SpanAssembler::end(Thread& t, const Record& r) {
    const int at = find_service(t, r);
    const int64_t elapsed = r.f.number_of("elapsed_us", -1);
    if (at < 0) {
        // Its start never reached the agent: a span of what the end tells.
        SpanData s;
        s.trace = trace_for(r);
        s.span = ids_.next();
        if (!t.stack.empty() && t.stack.back().span.trace == s.trace) {
            s.parent = t.stack.back().span.span;
            s.has_parent = true;
        } else {
            s.kind = SpanKind::Server;
        }
        s.name.assign(r.f.text_of("svc_id"));
        s.end_us = r.ts_us;
        s.start_us = elapsed > 0 ? r.ts_us - elapsed : r.ts_us;
        if (sink_) {
            attrs_of(r.f, s.attrs);
            s.resource = resource_of(r);
        }
        SpanRef ref = ref_of(s);
        ref.duration_us = elapsed > 0 ? elapsed : -1;
        export_span(std::move(s));
        return ref;
    }
    while (t.stack.size() > static_cast<size_t>(at) + 1)
        close(t, r.ts_us, "its end never came: an enclosing service ended");
    SpanData& s = t.stack.back().span;
    SpanRef ref = ref_of(s);
    ref.duration_us = elapsed > 0 ? elapsed : std::max<int64_t>(r.ts_us - s.start_us, 0);
    if (sink_)
        if (const Value* v = r.f.find("call_us")) s.attrs.push_back({v->key, true, true, v->num, {}});
    close(t, r.ts_us, nullptr);
    return ref;
}

SpanRef SpanAssembler::error(Thread& t, const Record& r) {
    const int at = find_service(t, r);
    if (at < 0) return notice(t, r);
    Service& s = t.stack[static_cast<size_t>(at)];
    s.span.error = true;
    if (sink_) add_event(s, r, {});
    return ref_of(s.span);
}

SpanRef SpanAssembler::call(Thread& t, const Record& r) {
    const bool dbio = r.log_type == 'B';
    SpanData c;
    c.trace = trace_for(r);
    c.span = dbio && t.dbio_span_set ? t.dbio_span : ids_.next();
    c.kind = dbio ? SpanKind::Client : SpanKind::Internal;
    c.start_us = r.f.number_of("start_us", r.ts_us);
    c.end_us = r.f.number_of("end_us", r.ts_us);
    std::vector<Statement> statements;
    if (dbio) {
        t.dbio_span_set = false;
        statements.swap(t.sql);
    }
    const SpanRef ref = ref_of(c);
    if (!sink_) return ref;
    const std::string_view func = r.f.text_of("func_nm");
    c.name = func.empty() ? (dbio ? "DBIO" : "BIZCALL") : std::string(func);
    c.status_message = call_error(r);
    c.error = !c.status_message.empty();
    attrs_of(r.f, c.attrs, true);
    if (!statements.empty()) {
        Attr a{"db.statement", false, false, 0, statements[0].sql};
        for (size_t i = 1; i < statements.size(); ++i) a.s.append("\n").append(statements[i].sql);
        c.attrs.push_back(std::move(a));
    }
    c.resource = resource_of(r);
    Service* s = t.stack.empty() || t.stack.back().span.trace != c.trace ? nullptr : &t.stack.back();
    if (!s) {
        export_span(std::move(c));  // no service of its trace is open: a root
        return ref;
    }
    const int level = static_cast<int>(r.f.number_of("trc_lvl", 1));
    // The calls this one made finished before it and lie within it.
    auto mine = std::stable_partition(s->calls.begin(), s->calls.end(),
                                      [level](const PendingCall& p) { return p.level <= level; });
    for (auto it = mine; it != s->calls.end(); ++it) {
        const bool inside = it->span.start_us >= c.start_us && it->span.end_us <= c.end_us;
        it->span.parent = inside ? c.span : s->span.span;
        it->span.has_parent = true;
        export_span(std::move(it->span));
    }
    s->calls.erase(mine, s->calls.end());
    if (level <= 1) {
        c.parent = s->span.span;
        c.has_parent = true;
        export_span(std::move(c));
        return ref;
    }
    s->calls.push_back({std::move(c), level});
    if (s->calls.size() > kMaxPendingCalls) flush_calls(*s, kMaxPendingCalls / 2);
    return ref;
}

SpanRef SpanAssembler::notice(Thread& t, const Record& r) {
    if (!t.stack.empty()) {
        Service& s = t.stack.back();
        if (r.log_type == 'E') s.error_text.assign(r.f.text_of("msg_text"));
        if (sink_) {
            std::vector<Attr> attrs;
            attrs_of(r.f, attrs, true);
            add_event(s, r, std::move(attrs));
        }
        return ref_of(s.span);
    }
    SpanRef ref;
    const std::string_view gid = r.f.text_of("gid");
    if (!gid.empty()) {
        ref.trace = trace_id_of_gid(gid);
        ref.has_trace = true;
    }
    if (!sink_) return ref;
    LogData l;
    l.trace = ref.trace;
    l.has_trace = ref.has_trace;
    l.ts_us = r.ts_us;
    l.severity = r.log_type == 'E' || r.log_type == '9' ? Severity::Error : Severity::Info;
    l.name = r.name;
    l.body.assign(r.log_type == 'Q' ? r.f.text_of("sql") : r.f.text_of("msg_text"));
    attrs_of(r.f, l.attrs);
    l.resource = resource_of(r);
    sink_->log(std::move(l));
    return ref;
}

int SpanAssembler::find_service(const Thread& t, const Record& r) const {
    const std::string_view svc_id = r.f.text_of("svc_id");
    const int64_t depth = r.f.number_of("depth");
    if (depth >= 1 && static_cast<size_t>(depth) <= t.stack.size() && t.stack[depth - 1].svc_id == svc_id)
        return static_cast<int>(depth - 1);
    for (size_t i = t.stack.size(); i-- > 0;)
        if (t.stack[i].svc_id == svc_id) return static_cast<int>(i);
    return -1;
}

// Closes the innermost service; `why` says why it ends without its end record.
void SpanAssembler::close(Thread& t, int64_t end_us, const char* why) {
    Service s = std::move(t.stack.back());
    t.stack.pop_back();
    s.span.end_us = std::max(end_us, s.span.start_us);
    if (why) {
        s.span.error = true;
        s.span.status_message = why;
    } else if (s.span.error) {
        s.span.status_message = s.error_text.empty() ? "service error" : s.error_text;
    }
    flush_calls(s, 0);
    export_span(std::move(s.span));
}

// Exports the waiting calls but the newest `keep`, with the service as parent.
void SpanAssembler::flush_calls(Service& s, size_t keep) {
    if (s.calls.size() <= keep) return;
    const auto last = s.calls.end() - static_cast<std::ptrdiff_t>(keep);
    for (auto it = s.calls.begin(); it != last; ++it) {
        it->span.parent = s.span.span;
        it->span.has_parent = true;
        export_span(std::move(it->span));
    }
    s.calls.erase(s.calls.begin(), last);
}

void SpanAssembler::add_event(Service& s, const Record& r, std::vector<Attr>&& attrs) {
    if (s.span.events.size() >= kMaxEvents) {
        ++s.span.dropped_events;
        return;
    }
    s.span.events.push_back({r.name, r.ts_us, std::move(attrs)});
}

void SpanAssembler::export_span(SpanData&& s) {
    if (sink_) sink_->span(std::move(s));
}

std::shared_ptr<const Resource> SpanAssembler::resource_of(const Record& r) {
    const std::string_view proc = r.f.text_of("proc_nm"), host = r.f.text_of("host_nm");
    std::shared_ptr<const Resource>& known = resources_[r.thread.pid];
    if (known && (proc.empty() || known->service_name == proc) && (host.empty() || known->host_name == host))
        return known;
    auto fresh = std::make_shared<Resource>();
    fresh->pid = r.thread.pid;
    fresh->service_name = proc.empty() && known ? known->service_name : std::string(proc);
    fresh->host_name = host.empty() && known ? known->host_name : std::string(host);
    known = fresh;
    return known;
}

void SpanAssembler::forget_if_idle(const ThreadKey& k) {
    auto it = threads_.find(k);
    if (it != threads_.end() && it->second.stack.empty() && it->second.sql.empty()) threads_.erase(it);
}

void SpanAssembler::thread_gone(int64_t pid, int64_t tid, int64_t now_us) {
    auto it = threads_.find({pid, tid});
    if (it == threads_.end()) return;
    while (!it->second.stack.empty())
        close(it->second, now_us,
              "the thread's tracing context was released before the service ended");
    threads_.erase(it);
}

void SpanAssembler::process_gone(int64_t pid, int64_t now_us) {
    for (auto it = threads_.begin(); it != threads_.end();) {
        if (it->first.pid != pid) {
            ++it;
            continue;
        }
        while (!it->second.stack.empty())
            close(it->second, now_us, "the process ended before the service did");
        it = threads_.erase(it);
    }
    resources_.erase(pid);
}

size_t SpanAssembler::open_services() const {
    size_t n = 0;
    for (const auto& [k, t] : threads_) n += t.stack.size();
    return n;
}

}  // namespace varnix::agent
