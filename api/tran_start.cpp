// Service start: opens a level of the thread's service nesting.
#include <cstdio>
#include <cstring>
#include <ctime>

#include "api/notice.h"
#include "api/service.h"
#include "core/gvar.h"
#include "core/log_printf.h"
#include "core/saturate.h"
#include "core/status.h"
#include "record/record.h"

namespace varnix {
namespace {

constexpr int kSvcPrintMax = 16;
constexpr int kGidPrintMax = 30;
constexpr int kGidCompared = 30;

// ICT and ICC open nested levels of other transactions without notice.  A
// channel type given shorter than three characters is neither.
bool quiet_channel(Text chnl) {
    if (!chnl.p || (chnl.len >= 0 && chnl.len < 3)) return false;
    return internal_channel(chnl.p);
}

// The argument's first characters (at most 30) equal the kept GID's; an
// absent GID matches.
bool same_gid(Text gid, const SvcLevel& kept) {
    if (!gid.p) return true;
    Printable g = printable_max(gid, kGidPrintMax, kGidCompared);
    return std::memcmp(g.p, kept.gid, static_cast<size_t>(g.len)) == 0;
}

void send_linked_notices(const ServiceArgs& a, const SvcLevel& kept, int new_depth) {
    Printable gid = printable(a.gid, kGidPrintMax);
    Printable svc = printable(a.svc_id, kSvcPrintMax);
    char text[512];
    std::snprintf(text, sizeof text, "Linked Transaction Created [ GID '%.*s' ] , [ Service %.*s - Depth #%d ]", gid.len,
                  gid.p, svc.len, svc.p, new_depth);
    Notice created;
    created.msg_text = {text, -1};
    (void)tran_info(a.tid, created);
    std::snprintf(text, sizeof text, "Linked Main Service Transaction Exist [ GID '%.*s' ] , [ Service %.*s]", 32,
                  kept.gid, 16, kept.svc_id);
    // The caller's own lengths: a GID or service id given with a length need
    // not be NUL-terminated.
    Notice exist;
    exist.gid = a.gid;
    exist.svc_id = a.svc_id;
    exist.msg_text = {text, -1};
    (void)tran_info(a.tid, exist);
}

// A start while a service is open: nests, links, or discards a transaction
// that was never ended.
void check_open_service(const ServiceKind& kind, MTR_CXT_VAR& cxt, const ServiceArgs& a) {
    const int depth = cxt.service_depth;
    const SvcLevel& kept = cxt.svc_stack[depth - 1];
    const int base = gvar.default_timeout_sec;
    const int elapsed =
        clamp_to<int32_t>(sat_sub<int64_t>(std::time(nullptr), cxt.ptrc ? cxt.ptrc->svc_mark_time : 0));
    const bool same = same_gid(a.gid, kept);
    const bool stale = elapsed >= base;
    Printable gid = printable(a.gid, kGidPrintMax);
    Printable svc = printable(a.svc_id, kSvcPrintMax);
    if (same && stale) {
        log_printf(kind.stale_same_gid_fmt, depth, 32, kept.gid, cxt.pid, static_cast<int>(cxt.tid), 16, kept.svc_id,
                   svc.len, svc.p, elapsed, base);
    } else if (!same && stale) {
        log_printf("<!> START - service depth init (%d)->(0), New GID_UNI -> KEEP |%.*s-%.*s|, NOW |%.*s-%.*s|, "
                   "svc_depth_elapsed %d sec (base %d sec)",
                   depth, 32, kept.gid, 16, kept.svc_id, gid.len, gid.p, svc.len, svc.p, elapsed, base);
    } else {
        if (!same && !(kind.quiet_channels && quiet_channel(tail_at(a, kTailChnlTypCd)))) {
            log_printf("(I) START - service depth change (%d)->(%d), New GID_UNI -> KEEP |%.*s-%.*s|, NOW |%.*s-%.*s|, "
                       "svc_depth_elapsed %d sec(base %d sec)",
                       depth, depth + 1, 32, kept.gid, 16, kept.svc_id, gid.len, gid.p, svc.len, svc.p, elapsed, base);
            send_linked_notices(a, kept, depth + 1);
        }
        return;
    }
    set_service_depth(cxt, 0);
    cxt.log_bit = 0;
}

void check_log_bit(const MTR_CXT_VAR& cxt, const ServiceArgs& a) {
    if (cxt.log_bit == 0 || cxt.log_bit == 3) return;
    Printable gid = printable_max(a.gid, 32, 32);
    Printable svc = printable_max(a.svc_id, 16, 16);
    log_printf("[CHECK_LOG_BIT] NOK, set START_BIT [ tid : %d, log_bit : %d, PID : %d, GID - Keep {%.*s} Now {%.*s}, "
               "SVC_ID - Keep {%.*s} Now {%.*s} ]",
               static_cast<int>(cxt.tid), cxt.log_bit, gvar.pid, 32, cxt.svc_stack[0].gid, gid.len, gid.p, 16,
               cxt.svc_stack[0].svc_id, svc.len, svc.p);
}

// The outermost start also opens the service's call and fetch sums.
void begin_outermost(const ServiceKind& kind, MTR_CXT_VAR& cxt) {
    mark_outermost_start(kind, cxt);
    cxt.call_stat = CallStat{};
    if (!kind.stats_with_fetch) return;
    PTRC_HASH& e = *cxt.ptrc;
    e.fetch_cnt = 0;
    e.fetch_rows_sum = 0;
    e.fetch_time_sum = 0;
}

void push_level(MTR_CXT_VAR& cxt) {
    const int n = cxt.service_depth - 1;
    const char* b = cxt.log_body;
    std::memcpy(cxt.svc_stack[n].gid, b + hdr::kGid, 32);
    std::memcpy(cxt.svc_stack[n].svc_id, b + hdr::kSvcId, 16);
    std::memcpy(cxt.ptrc->svc_stack[n].gid, b + hdr::kGid, 32);
    std::memcpy(cxt.ptrc->svc_stack[n].svc_id, b + hdr::kSvcId, 16);
}

}  // namespace

int service_start(const ServiceKind& kind, const ServiceArgs& a) {
    if (int rc = check_gvar('1'); rc != kOk) return rc;
    MTR_CXT_VAR* cp = nullptr;
    if (int rc = get_mtr_cxt_var(a.tid, &cp); rc != kOk) {
        log_printf("<!> %s get_mtr_cxt_var error, return code %d, tid %d", kind.start_name, rc, a.tid);
        return rc;
    }
    MTR_CXT_VAR& cxt = *cp;
    const int depth = cxt.service_depth;
    if (depth < 0 || depth > 9) {
        Printable gid = printable(a.gid, kGidPrintMax);
        Printable svc = printable(a.svc_id, kSvcPrintMax);
        log_printf(depth < 0 ? "<!> START service_depth minus error!(val:%d (MAX:%d)) GID-PID-TID|%.*s|-|%d|-|%d|, SVC "
                               "(%.*s)."
                             : "<!> START service_depth MAX error!(val:%d (MAX:%d)) GID-PID-TID|%.*s|-|%d|-|%d|, SVC "
                               "(%.*s).",
                   depth, VARNIX_SVC_DEPTH_MAX, gid.len, gid.p, cxt.pid, static_cast<int>(cxt.tid), svc.len, svc.p);
        if (depth < 0) return VARNIX_RC_SVC_DEPTH;
        set_service_depth(cxt, 0);
    } else if (depth > 0) {
        check_open_service(kind, cxt, a);
    }
    set_service_depth(cxt, cxt.service_depth + 1);
    if (int rc = trace_validate(cxt, '1', kind.start_api, cxt.log_body, a.svc_id.p, a.svc_id.len, snapshot_key(a));
        rc != kOk)
        return rc;
    const bool outermost = cxt.service_depth == 1;
    if (outermost) {
        check_log_bit(cxt, a);
        cxt.log_bit = 1;
    }
    write_service_body(cxt, kind, a,
                       ServiceRecord{'1', a.gid, outermost ? &cxt.ptrc->svc_start_tv : nullptr, nullptr, 0,
                                     cxt.service_depth});
    if (outermost) begin_outermost(kind, cxt);
    push_level(cxt);
    return tran_logb(cxt, cxt.log_rec);
}

}  // namespace varnix
