// Call tracing: the start and finish of business calls (BIZCALL) and database
// calls (DBIO).  The stack of open calls lives in the thread's process-thread
// entry, where the collector watches it; only the owning thread's own starts
// and finishes change it, without a lock, so they must not overlap.
//
// Level i of the stack holds the i-th open traced call; the calls made by the
// call at level i add their times into level i + 1, which the finish of level
// i consumes and clears.  `last_fin_lvl` tells a finish whether the level
// below holds children of its call (the previous finish was deeper) or not.
#include <sys/time.h>

#include <cstdio>
#include <cstring>

#include "api/calc_call_stat.h"
#include "api/notice.h"
#include "api/tran_sql.h"
#include "core/clock.h"
#include "core/saturate.h"
#include "core/entry_gate.h"
#include "core/gvar.h"
#include "core/log_printf.h"
#include "core/short_cstr.h"
#include "core/status.h"
#include "core/text_out.h"
#include "record/call_validate.h"
#include "record/record.h"
#include "varnix.h"

namespace varnix {

namespace {

constexpr char kDbio = 'B';
constexpr char kBizcall = 'C';
constexpr int kLastLevel = VARNIX_CALL_LVL_CNT - 1;
constexpr size_t kTextWidth = 350;
constexpr uint32_t kCallBodyLen = hdr::kEnd + static_cast<uint32_t>(kTextWidth) + 1;
constexpr int kSignatureCompared = kDbioSignatureCompared;
constexpr size_t kNameMax = 70;
constexpr size_t kSourceMax = 100;

// The name ended before the pattern's character `from`: DBIO only when no
// pattern character is left to compare.
[[gnu::cold, gnu::noinline]] char kind_of_short_name(const char* pattern, int from) {
    for (int i = from; i < kSignatureCompared; ++i)
        if (pattern[i] != '\0') return kBizcall;
    return kDbio;
}

// call_kind character by character: each of the pattern's first characters
// is NUL or equals the name's character at the configured position onwards;
// no name character lies where the name has ended.  The name is read no
// further than its NUL.  No name is a BIZCALL.
[[gnu::noinline]] char kind_by_characters(const char* func_nm) {
    const int32_t pos = gvar.dbio_func_no;
    if (!func_nm || pos < 0) return kBizcall;
    const char* pattern = gvar.dbio_func_nm;
    for (int32_t i = 0; i < pos; ++i)
        if (func_nm[i] == '\0') return kind_of_short_name(pattern, 0);
    const char* at = func_nm + pos;
    for (int i = 0; i < kSignatureCompared; ++i) {
        if (at[i] == '\0') return kind_of_short_name(pattern, i);
        if (pattern[i] != '\0' && at[i] != pattern[i]) return kBizcall;
    }
    return kDbio;
}

// DBIO when the function name carries the configured signature.  Where the
// signature lies in the name's first 8 bytes, one load decides: no NUL up to
// the last configured character, and those characters equal (the bytes past
// a NUL are never looked at: a NUL among the live bytes decides alone).  The
// signature is configuration, published together with init_mark: read once
// the library was found ready.
[[gnu::always_inline]] inline char call_kind(const char* func_nm) {
    const DbioSignature& sig = gvar.dbio_signature;
    uint64_t v = 0;
    if (!load_8_in_page(func_nm, v)) return kind_by_characters(func_nm);
    // Never where the signature does not fit.  Most calls of a service are
    // business calls: theirs is the straight way.
    if ((v & sig.care) != sig.want) [[likely]]
        return kBizcall;
    if (!sig.fits) return kind_by_characters(func_nm);
    // A byte of `live` that is NUL sets its high bit here; a borrow reaches
    // the live bytes above a NUL only, never a live byte below every NUL.
    return ((v - 0x0101010101010101ull) & ~v & sig.live) == 0 ? kDbio : kBizcall;
}

// At most `Max` characters of `src`, NUL-terminated; empty for null.
template <size_t Max, size_t N>
[[gnu::always_inline]] inline void keep_name(char (&dst)[N], const char* src) {
    static_assert(Max < N && Max >= 16);
    if (copy_short_cstr(dst, src)) return;
    const size_t n = src ? strnlen(src, Max) : 0;
    field_detail::copy_short<Max + 1>(dst, src, n);
    dst[n] = '\0';
}

// A name field of shared memory as far as it goes: up to its NUL, at most
// its size.
template <size_t N>
std::string_view field_text(const char (&field)[N]) {
    return {field, strnlen(field, N)};
}

// A NUL-terminated copy of a name field of shared memory.
template <size_t N>
struct Name {
    char s[N + 1];
    explicit Name(const char (&field)[N]) {
        const size_t n = strnlen(field, N);
        std::memcpy(s, field, n);
        s[n] = '\0';
    }
};

// What a start or finish knows once its checks passed: the call's kind and
// the context with its entry (found naming the thread: `entry_ours`).  No
// call sees its address, so that it stays in registers.
struct Resolved {
    char kind;
    bool entry_ours;
    MTR_CXT_VAR* cxt;
};

// The call's kind and the context of `tid` with its entry, after the library
// and collector checks; then the time `now`, which also marks the context's
// access.  `self` is the calling thread's thread_own, as its entry gate found
// it.  Every call runs this twice: the calling thread's own context is taken
// here, without a call, once the checks found tracing on.
[[gnu::always_inline]] inline int resolve(const ThreadOwn& self, int32_t tid, const char* func_nm, Resolved& r,
                                          timeval& now) {
    if (!library_ready()) [[unlikely]]
        return VARNIX_RC_NOT_INIT;
    r.kind = call_kind(func_nm);
    uint8_t flags = 0;
    if (int rc = check_collector_class(r.kind == kDbio ? VARNIX_FLAG_B : VARNIX_FLAG_C, flags); rc != kOk)
        return rc;
    r.cxt = tid < 0 ? own_context_held(self) : nullptr;
    r.entry_ours = r.cxt != nullptr;
    if (r.cxt) {
        gettimeofday(&now, nullptr);
        touch_context(*r.cxt, now.tv_sec);
        return kOk;
    }
    MTR_CXT_VAR* found = nullptr;
    if (int rc = context_with_entry(tid, &found); rc != kOk) return rc;
    r.cxt = found;
    gettimeofday(&now, nullptr);
    return kOk;
}

// The kind's checks shared by start and finish: an open service, then the
// validation of the record.  Its service id is written when a record goes.
[[gnu::always_inline]] inline int check_call(const Resolved& r) {
    if (!current_svc_level(*r.cxt)) return VARNIX_RC_SVC_DEPTH;
    return validate_call(*r.cxt, r.kind, r.entry_ours);
}

// A caller's name as the log shows it: empty for none.  Taken in the error
// branches only, so that a call that logs nothing does not carry it.
inline const char* shown(const char* name) { return name ? name : ""; }

// Refuses a DBIO call inside an open DBIO call.
int check_nesting(const PTRC_HASH& e, char kind, const char* func_nm) {
    const CALL_LVL* open = kind == kDbio ? innermost_call(e) : nullptr;
    if (!open || open->call_kind != kDbio) return kOk;
    log_printf("<!> log_type error, DBIO_TYPE {%d-%s} can't call in DBIO_TYPE {%d-%s}.", e.total_call_cnt,
               shown(func_nm), open->call_seq, Name(open->func_nm).s);
    return VARNIX_RC_DBIO_IN_DBIO;
}

struct StartArgs {
    const char* module_nm;
    const char* source_nm;
    int32_t line_no;
    int32_t start_opt;
    const char* func_nm;
};

int callinfo_start(const ThreadOwn& self, int32_t tid, const StartArgs& a) {
    Resolved r;
    timeval now;
    if (int rc = resolve(self, tid, a.func_nm, r, now); rc != kOk) return rc;
    MTR_CXT_VAR* cxt = r.cxt;
    const char kind = r.kind;
    PTRC_HASH& e = *cxt->ptrc;
    e.dbio_sts = kind == kDbio ? 1 : 0;
    if (int rc = check_call(r); rc != kOk) return rc;

    // Counted before the checks below, which do not take them back.  Kept in
    // locals too: only this thread's calls change them.
    const int32_t call_depth = sat_add(e.call_trc_depth, 1);
    const int32_t call_seq = sat_add(e.total_call_cnt, 1);
    e.call_trc_depth = call_depth;
    if (call_depth > static_cast<int64_t>(cxt->call_stat.max_call_depth))
        cxt->call_stat.max_call_depth = static_cast<uint32_t>(call_depth);
    e.total_call_cnt = call_seq;
    e.sql_rec_cnt = 0;
    e.sql_code = 9999;
    std::memset(e.fetch_last, 0, sizeof e.fetch_last);

    if (call_depth < 0) {
        log_printf("<!> call_trc_depth error, function(%s) call.", shown(a.func_nm));
        return VARNIX_RC_CALL_DEPTH;
    }
    if (kind == kBizcall && call_depth > e.call_trc_depth_max) return kOk;  // too deep to trace
    if (int rc = check_nesting(e, kind, a.func_nm); rc != kOk) return rc;
    const int depth = e.trc_lvl;
    if (depth < 0 || depth > kLastLevel) return VARNIX_RC_CALL_DEPTH;

    CALL_LVL& lvl = e.call_lvl[depth];
    lvl.line_no = a.line_no;
    lvl.call_kind = kind;
    lvl.start_tv = now;
    lvl.end_tv = timeval{};
    lvl.call_seq = call_seq;
    lvl.start_opt = static_cast<uint32_t>(a.start_opt);
    lvl.force_rec = 0;
    keep_name<kNameMax>(lvl.func_nm, a.func_nm);
    keep_name<kNameMax>(lvl.module_nm, a.module_nm);
    keep_name<kSourceMax>(lvl.source_nm, a.source_nm);
    ++e.trc_lvl;
    return kOk;
}

struct FinishArgs {
    int32_t rc;
    const char* func_nm;
};

// What a call's record shows besides the call's own state: the caller's
// arguments, gathered only when a record goes.
struct RecordArgs {
    HeaderArgs header;
    const char* module_nm;
    const char* source_nm;
    int32_t line_no;
    const char* kind_label;
};

// An error return code forces records, once per service: of the finishing
// call (verdict 1) or of every call still open around it too (verdict 2).
void force_on_error(PTRC_HASH& e, int k) {
    const int verdict = is_err_rc(&e.call_lvl[k]);
    if (verdict == 0 || e.err_rc_marked != 0) return;
    if (verdict == 2)
        for (int i = 0; i <= k; ++i) e.call_lvl[i].force_rec = 1;
    else if (verdict == 1)
        e.call_lvl[k].force_rec = 1;
    e.err_rc_marked = 1;
}

enum class Format { kWithChildren, kAlone, kDbioFirst, kDbioLater };

struct Sums {
    int64_t elapsed = 0;
    int64_t dbio = 0;
};

struct Plan {
    bool wanted;
    Format format;
    Sums below;  // the children's sums, for kWithChildren
};

// The sums of the level below `lvl`, the level of a call with `depth` levels
// open (none below the last level).
Sums sums_below(const CALL_LVL& lvl, int depth) {
    if (depth > kLastLevel) return {};
    const CALL_LVL& below = (&lvl)[1];
    return {below.elapsed_sum, below.dbio_sum};
}

void clear_sums(PTRC_HASH& e, int level) {
    if (level < 0 || level > kLastLevel) return;
    e.call_lvl[level].elapsed_sum = 0;
    e.call_lvl[level].dbio_sum = 0;
}

// Feeds the level sums and the statistics with the finished call at level k
// (`depth` = k + 1 levels open; `last`: last_fin_lvl) and decides whether its
// record is wanted, and in which form.  The limits are read after the
// statistics, which may raise them.
Plan plan_record(MTR_CXT_VAR& cxt, PTRC_HASH& e, int depth, int last, int64_t elapsed, char kind) {
    CALL_LVL& lvl = e.call_lvl[depth - 1];
    if (last > depth) {  // traced children: their sums are in the level below
        const Sums below = sums_below(lvl, depth);
        calc_call_stat(cxt, elapsed, kind, below.elapsed);
        const Plan plan{elapsed >= e.call_trc_limit || lvl.force_rec != 0, Format::kWithChildren, below};
        lvl.elapsed_sum = sat_add(lvl.elapsed_sum, elapsed);
        lvl.dbio_sum = sat_add(lvl.dbio_sum, below.dbio);
        clear_sums(e, last - 1);
        return plan;
    }
    const bool first = last < depth;
    lvl.elapsed_sum = first ? elapsed : sat_add(lvl.elapsed_sum, elapsed);
    if (kind != kDbio) {
        calc_call_stat(cxt, elapsed, kind, sums_below(lvl, depth).elapsed);
        return {elapsed >= e.call_trc_limit || lvl.force_rec != 0, Format::kAlone, {}};
    }
    lvl.dbio_sum = first ? elapsed : sat_add(lvl.dbio_sum, elapsed);
    e.call_elapsed_sum = sat_add(e.call_elapsed_sum, elapsed);
    calc_call_stat(cxt, elapsed, kind, 0);
    if (e.dbio_skip != 0) return {false, Format::kDbioFirst, {}};
    return {elapsed >= e.dbio_trc_limit || lvl.force_rec != 0, first ? Format::kDbioFirst : Format::kDbioLater, {}};
}

// Seconds and microseconds of a microsecond count or of a time.
struct Secs {
    long s, us;
};
Secs secs(int64_t us) { return {static_cast<long>(us / 1000000), static_cast<long>(us % 1000000)}; }
Secs secs(const timeval& tv) { return {static_cast<long>(tv.tv_sec), static_cast<long>(tv.tv_usec)}; }

void write_text(char* body, const PTRC_HASH& e, const CALL_LVL& lvl, const RecordArgs& a, Plan p,
                int64_t elapsed) {
    const bool biz_form = p.format == Format::kWithChildren || p.format == Format::kAlone;
    const bool children = p.format == Format::kWithChildren;
    const Secs all = secs(elapsed);
    const Secs own = secs(!biz_form ? 0 : children ? sat_sub(elapsed, p.below.elapsed) : elapsed);
    const Secs called = secs(children ? sat_sub(p.below.elapsed, p.below.dbio) : 0);
    const Secs dbio = secs(children ? p.below.dbio : 0);
    const Secs start = secs(lvl.start_tv);
    const Secs end = secs(lvl.end_tv);
    const char* label = a.kind_label ? a.kind_label : biz_form ? "METHOD" : "";
    TextOut<static_cast<int>(kTextWidth)> t;
    t.number(e.trc_lvl).ch(',').number(e.call_trc_depth_max).ch(',');
    for (const Secs& v : {all, own, called, dbio, start, end}) t.secs(v.s, v.us).ch(',');
    t.ch('[').cstr(label).text("]["sv).text(field_text(lvl.func_nm)).text(" at "sv).cstr(a.module_nm);
    t.text(" ("sv);
    if (a.source_nm) t.cstr(a.source_nm);
    else t.text(field_text(lvl.source_nm));
    t.text("::"sv).number(a.line_no, 5).text("){"sv).number(lvl.call_seq).text("}]"sv);
    const int32_t sql_code = static_cast<int32_t>(e.sql_code);
    switch (p.format) {
        case Format::kWithChildren:
        case Format::kAlone: t.text("#RC "sv).number(lvl.rc); break;
        case Format::kDbioFirst:
        case Format::kDbioLater:
            // The later DBIO form has no blank before the fetch time.
            t.text("#SQLCODE "sv).number(sql_code).text(", #RC "sv).number(lvl.rc);
            t.text(" (line "sv).number(e.fetch_last[2]).text(") fetch "sv).number(e.fetch_last[0]);
            t.text(p.format == Format::kDbioFirst ? " rows ("sv : " rows("sv);
            t.number(e.fetch_last[1] / 1000).ch('.').number(e.fetch_last[1] % 1000).text(" ms) DB "sv);
            t.text(field_text(e.db_user)).ch('/').text(field_text(e.db_sid));
            break;
    }
    put_bytes<kTextWidth>(body + hdr::kEnd, t.data(), static_cast<size_t>(t.size()));
}

// Header, GID and service id of the open service and length around the
// text already in the body; the dispatcher's result.
int send_call_record(MTR_CXT_VAR& cxt, char kind, HeaderArgs h, const timeval& end) {
    const SvcLevel& level = *current_svc_level(cxt);
    h.gid = level_gid(level);
    Now now(end);  // the call ended now
    write_header(cxt.log_body, kind, h, now);
    put_bytes<sizeof level.svc_id>(cxt.log_body + hdr::kSvcId, level.svc_id, sizeof level.svc_id);
    *cxt.log_len = kCallBodyLen;
    return tran_logb(cxt, cxt.log_rec);
}

// `record` gives the RecordArgs, asked for only when a record goes.
template <typename Record>
int callinfo_finish(const ThreadOwn& self, int32_t tid, FinishArgs a, const Record& record) {
    Resolved r;
    timeval now;
    if (int rc = resolve(self, tid, a.func_nm, r, now); rc != kOk) return rc;
    if (int rc = check_call(r); rc != kOk) return rc;
    MTR_CXT_VAR* cxt = r.cxt;
    const char kind = r.kind;
    // The entry's call state is read once: only this thread's calls change it.
    PTRC_HASH& e = *cxt->ptrc;
    const int depth = e.trc_lvl;
    const int32_t call_depth = e.call_trc_depth;
    if (depth < 1 || depth > VARNIX_CALL_LVL_CNT) {
        log_printf("<!> depth error, function(%s) call does not match the start and end.", shown(a.func_nm));
        return VARNIX_RC_CALL_DEPTH;
    }
    if (call_depth < 0) {
        log_printf("<!> depth error, function(%s) call.", shown(a.func_nm));
        return VARNIX_RC_CALL_DEPTH;
    }
    // The call's nesting ends here, traced or not; the records below do not
    // show it.
    e.call_trc_depth = call_depth - 1;
    if (kind == kBizcall && call_depth > e.call_trc_depth_max) return VARNIX_RC_NOT_TRACED;  // start not traced

    const int k = depth - 1;
    const int last = e.last_fin_lvl;
    e.last_fin_lvl = static_cast<int8_t>(depth);  // nothing below reads it
    CALL_LVL& lvl = e.call_lvl[k];
    lvl.end_tv = now;
    const int64_t elapsed = usec_between(lvl.start_tv, now);
    lvl.rc = a.rc;
    force_on_error(e, k);
    const Plan plan = plan_record(*cxt, e, depth, last, elapsed, kind);
    if (plan.wanted) {
        write_text(cxt->log_body, e, lvl, record(), plan, elapsed);
        lvl.force_rec = 0;
    }
    const bool skipped = kind == kDbio && e.dbio_skip != 0;
    if (!(skipped && plan.format != Format::kWithChildren) && e.sql_rec_cnt > 0) {
        (void)tran_sql_stmt_close(*cxt);
        e.sql_rec_cnt = 0;
    }
    --e.trc_lvl;  // to k: the SQL statements above closed at the finishing level
    if (skipped) return static_cast<unsigned char>(e.dbio_skip);  // 121 or 100
    if (!plan.wanted) return kind == kDbio ? VARNIX_RC_DBIO_FAST : VARNIX_RC_BIZ_FAST;
    return send_call_record(*cxt, kind, record().header, now);
}

}  // namespace
}  // namespace varnix

using varnix::Text;

extern "C" {

int32_t TRAN_CALLINFO_S(int32_t tid, const char*, int32_t, const char*, int32_t, const char*, int32_t, const char*,
                        int32_t, const char*, int32_t, const char*, int32_t, const char*, int32_t, const char* module_nm,
                        int32_t, const char* source_nm, int32_t, int32_t line_no, int32_t start_opt,
                        const char* func_nm) {
    varnix::ThreadOwn& self = varnix::own_block();
    const varnix::EntryGate gate(self);
    return varnix::callinfo_start(self, tid, {module_nm, source_nm, line_no, start_opt, func_nm});
}

int32_t TRAN_CALLINFO_F(int32_t tid, const char* cls_cd, int32_t cls_cd_len, const char* dtl_cd, int32_t dtl_cd_len,
                        const char*, int32_t, const char*, int32_t, const char* pid_str, int32_t pid_str_len,
                        const char* date_str, int32_t date_str_len, const char* time_str, int32_t time_str_len,
                        const char* module_nm, int32_t, const char* source_nm, int32_t, int32_t line_no, int32_t rc,
                        const char* func_nm, int32_t, const char* kind_label, int32_t) {
    varnix::ThreadOwn& self = varnix::own_block();
    const varnix::EntryGate gate(self);
    auto record = [&] {
        const varnix::HeaderArgs header{Text{cls_cd, cls_cd_len}, Text{dtl_cd, dtl_cd_len}, Text{},
                                        Text{pid_str, pid_str_len}, Text{date_str, date_str_len},
                                        Text{time_str, time_str_len}};
        return varnix::RecordArgs{header, module_nm, source_nm, line_no, kind_label};
    };
    return varnix::callinfo_finish(self, tid, {rc, func_nm}, record);
}

}  // extern "C"
