// Spans from records: the trace id function, one transaction's tree, and the
// ends of services whose end record never comes.
#include <gtest/gtest.h>

#include <algorithm>
#include <set>

#include "collector/span_assembler.h"

namespace varnix::agent {
namespace {

constexpr int64_t kPid = 4242;

struct Collected : TelemetrySink {
    void span(SpanData&& s) override { spans.push_back(std::move(s)); }
    void log(LogData&& l) override { logs.push_back(std::move(l)); }
    const SpanData& named(std::string_view name) const {
        static const SpanData none;
        auto it = std::find_if(spans.begin(), spans.end(), [&](const SpanData& s) { return s.name == name; });
        return it == spans.end() ? none : *it;
    }
    std::vector<SpanData> spans;
    std::vector<LogData> logs;
};

// A record of thread `tid` of kPid, with literal fields.
struct Rec {
    Rec(char type, const char* name, int64_t ts, int64_t tid = 1) {
        r.log_type = type;
        r.name = name;
        r.ts_us = ts;
        r.thread = {kPid, tid};
        r.f.text("proc_nm", "bank_server");
        r.f.number("pid", kPid);
        r.f.number("tid", tid);
    }
    Rec& t(std::string_view k, std::string_view v) {
        r.f.text(k, v);
        return *this;
    }
    Rec& n(std::string_view k, int64_t v) {
        r.f.number(k, v);
        return *this;
    }
    Record r;
};

Rec service(char type, const char* svc, int depth, int64_t ts, const char* gid = "GID-1", int64_t tid = 1) {
    static constexpr const char* kNames[] = {"service_start", "service_end", "service_error"};
    Rec rec(type, kNames[type == '1' ? 0 : type == '2' ? 1 : 2], ts, tid);
    rec.t("gid", gid).t("svc_id", svc).n("depth", depth);
    return rec;
}

Rec call(char type, const char* func, int level, int64_t start, int64_t end) {
    Rec rec(type, type == 'B' ? "dbio" : "bizcall", end);
    rec.t("gid", "GID-1").n("trc_lvl", level).n("start_us", start).n("end_us", end).t("func_nm", func).n("rc", 0);
    return rec;
}

std::string hex(const uint8_t* b, size_t n) {
    std::string s;
    for (size_t i = 0; i < n; ++i) s += "0123456789abcdef"[b[i] >> 4], s += "0123456789abcdef"[b[i] & 15];
    return s;
}

const Attr* attr(const std::vector<Attr>& attrs, std::string_view key) {
    for (const Attr& a : attrs)
        if (a.key == key) return &a;
    return nullptr;
}

TEST(SpanAssembler, TraceIdsAreTheGidsFnv1aHashAndSpanIdsNeverZero) {
    const TraceId bank = trace_id_of_gid("BANK-20261125-0000000000000001");
    EXPECT_EQ(hex(bank.b, 16), "df270e66ed69c42006a457d5936ea631");
    EXPECT_EQ(trace_id_of_gid("BANK-20261125-0000000000000001   "), bank);  // padding is no part of it
    EXPECT_NE(trace_id_of_gid("BANK-20261125-0000000000000002"), bank);
    SpanIds ids(0 - 0x9E3779B97F4A7C15ull);  // the next step lands on zero
    const SpanId first = ids.next(), second = ids.next();
    EXPECT_NE(first, SpanId{});
    EXPECT_NE(first, second);
}

TEST(SpanAssembler, OneTransactionBecomesOneTreeWithCallsStatementsErrorsAndEvents) {
    Collected out;
    SpanAssembler a(&out);
    const SpanRef top = a.record(service('1', "TRANSFER", 1, 1000).r);
    a.record(call('C', "inner", 2, 1100, 1200).r);  // finishes before the call that made it
    a.record(call('C', "outer", 1, 1050, 1300).r);
    a.record(call('C', "orphan", 2, 1400, 1450).r);  // its level-1 caller sends no record
    a.record(service('1', "DEBIT", 2, 1500).r);
    Rec sql('Q', "sql", 1550);
    sql.t("gid", "GID-1").t("sql", "SELECT balance FROM account");
    Rec dbio = call('B', "DBIO_select", 1, 1560, 1700);
    dbio.n("sql_code", -942).t("db_user", "bank").t("db_sid", "ORCL");
    const SpanRef stmt = a.statement(sql.r, &dbio.r);
    const SpanRef db = a.record(dbio.r);
    // A DBIO call faster than its limit: its statement, and no record.
    Rec fast('Q', "sql", 1740);
    fast.t("gid", "GID-1").t("func_nm", "DBIO_fast").n("elapsed_us", 20).t("sql", "SELECT 1 FROM dual");
    const Rec note = Rec('I', "info", 1750).t("gid", "GID-1").t("msg_text", "a note");
    const SpanRef quick = a.statement(fast.r, &note.r);
    a.record(note.r);
    EXPECT_EQ(a.record(service('2', "DEBIT", 2, 1800).r).duration_us, 300);  // nested: end minus start
    a.record(service('9', "TRANSFER", 1, 1850).r);
    a.record(Rec('E', "error_info", 1860).t("gid", "GID-1").t("msg_text", "limit exceeded").r);
    EXPECT_EQ(a.record(service('2', "TRANSFER", 1, 2000).n("elapsed_us", 1000).n("call_us", 140).r).duration_us,
              1000);
    a.record(Rec('V', "event", 2100).t("gid", "GID-9").t("evt_no", "1508").t("msg_text", "started").r);
    EXPECT_EQ(a.open_services(), 0u);

    ASSERT_EQ(out.spans.size(), 7u);
    std::set<std::string> ids;
    for (const SpanData& s : out.spans) {
        EXPECT_EQ(s.trace, top.trace) << s.name;
        EXPECT_EQ(s.resource->service_name, "bank_server");
        EXPECT_EQ(s.resource->pid, kPid);
        EXPECT_LE(s.start_us, s.end_us) << s.name;
        ids.insert(hex(s.span.b, 8));
    }
    EXPECT_EQ(ids.size(), 7u);
    for (const SpanData& s : out.spans)  // no parent that is never exported
        EXPECT_TRUE(!s.has_parent || ids.count(hex(s.parent.b, 8))) << s.name;
    const SpanData &transfer = out.named("TRANSFER"), &debit = out.named("DEBIT"), &outer = out.named("outer"),
                   &select = out.named("DBIO_select");
    EXPECT_EQ(transfer.span, top.span);
    EXPECT_FALSE(transfer.has_parent);
    EXPECT_EQ(transfer.kind, SpanKind::Server);
    EXPECT_TRUE(transfer.error);
    EXPECT_EQ(transfer.status_message, "limit exceeded");
    EXPECT_EQ(transfer.start_us, 1000);
    EXPECT_EQ(transfer.end_us, 2000);
    EXPECT_EQ(attr(transfer.attrs, "call_us")->i, 140);
    EXPECT_EQ(debit.kind, SpanKind::Internal);
    EXPECT_EQ(debit.parent, transfer.span);
    ASSERT_EQ(debit.events.size(), 1u);
    EXPECT_EQ(debit.events[0].name, "info");
    EXPECT_EQ(attr(debit.events[0].attrs, "msg_text")->s, "a note");
    EXPECT_EQ(out.named("inner").parent, outer.span);
    EXPECT_EQ(outer.parent, transfer.span);
    EXPECT_EQ(out.named("orphan").parent, transfer.span);
    EXPECT_EQ(select.kind, SpanKind::Client);
    EXPECT_EQ(select.parent, debit.span);
    EXPECT_EQ(select.span, db.span);
    EXPECT_EQ(stmt.span, db.span);  // the statement's line names its call's span
    EXPECT_EQ(select.status_message, "SQLCODE -942");
    EXPECT_EQ(attr(select.attrs, "db.statement")->s, "SELECT balance FROM account");
    EXPECT_EQ(attr(select.attrs, "db.user")->s, "bank");
    EXPECT_EQ(attr(select.attrs, "db.name")->s, "ORCL");
    EXPECT_EQ(attr(transfer.attrs, "thread.id")->i, 1);
    EXPECT_EQ(attr(select.attrs, "gid"), nullptr);  // its service's span carries it
    EXPECT_FALSE(outer.error);
    const SpanData& fast_span = out.named("DBIO_fast");
    EXPECT_EQ(fast_span.span, quick.span);
    EXPECT_EQ(fast_span.parent, debit.span);
    EXPECT_EQ(fast_span.kind, SpanKind::Client);
    EXPECT_EQ(fast_span.end_us - fast_span.start_us, 20);
    EXPECT_EQ(attr(fast_span.attrs, "db.statement")->s, "SELECT 1 FROM dual");
    ASSERT_EQ(out.logs.size(), 1u);  // the event outside any service
    EXPECT_EQ(out.logs[0].body, "started");
    EXPECT_EQ(out.logs[0].trace, trace_id_of_gid("GID-9"));
}

TEST(SpanAssembler, ServicesWhoseEndNeverComesEndWithAnError) {
    Collected out;
    SpanAssembler a(&out);
    a.record(service('1', "S1", 1, 100).r);
    a.record(service('1', "LINKED", 2, 150, "GID-2").r);  // another trace: a root of its own
    a.record(service('1', "S3", 1, 200).r);               // a new outermost start ends both
    a.record(service('1', "ON_B", 1, 300, "GID-1", 2).r);
    a.record(service('1', "ON_C", 1, 310, "GID-1", 3).r);
    a.record(service('2', "NO_START", 1, 400, "GID-1", 4).n("elapsed_us", 50).r);
    a.thread_gone(kPid, 2, 500);
    a.record(service('2', "S3", 1, 550).n("elapsed_us", 350).r);
    a.process_gone(kPid, 600);
    EXPECT_EQ(a.open_services(), 0u);
    ASSERT_EQ(out.spans.size(), 6u);
    const std::string why = "a new service started at its depth before it ended";
    EXPECT_EQ(out.named("LINKED").status_message, why);
    EXPECT_EQ(out.named("LINKED").kind, SpanKind::Server);
    EXPECT_FALSE(out.named("LINKED").has_parent);
    EXPECT_EQ(out.named("S1").status_message, why);
    EXPECT_EQ(out.named("S1").end_us, 200);
    EXPECT_EQ(out.named("NO_START").start_us, 350);
    EXPECT_FALSE(out.named("NO_START").error);
    EXPECT_EQ(out.named("ON_B").status_message, "the thread's tracing context was released before the service ended");
    EXPECT_EQ(out.named("ON_B").end_us, 500);
    EXPECT_FALSE(out.named("S3").error);
    EXPECT_EQ(out.named("ON_C").status_message, "the process ended before the service did");
    EXPECT_TRUE(out.named("ON_C").error);
}

}  // namespace
}  // namespace varnix::agent
