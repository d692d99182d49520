// Service end: closes the level opened last; the outermost end reports the
// service's elapsed time, its call statistics and a finished snapshot.
#include <cstdio>
#include <cstring>

#include "api/notice.h"
#include "api/service.h"
#include "core/gvar.h"
#include "core/log_printf.h"
#include "core/status.h"
#include "core/text_out.h"
#include "record/record.h"

namespace varnix {
namespace {

constexpr int kSvcPrintMax = 16;
constexpr int kGidPrintMax = 30;
constexpr int kGidCompared = 30;
constexpr int kElapsedAt = 197;
constexpr int kStartBit = 1;
constexpr int kEndBit = 2;

bool depth_in_range(MTR_CXT_VAR& cxt, const ServiceArgs& a) {
    const int depth = cxt.service_depth;
    if (depth >= 1 && depth <= VARNIX_SVC_DEPTH_MAX) return true;
    Printable gid = printable(a.gid, kGidPrintMax);
    Printable svc = printable(a.svc_id, kSvcPrintMax);
    if (depth < 1) {
        log_printf("<!> END service_depth error!(val:%d (MAX:%d)) GID-PID-TID|%.*s|-|%d|-|%d|, SVC (%.*s).", depth,
                   VARNIX_SVC_DEPTH_MAX, gid.len, gid.p, cxt.pid, static_cast<int>(cxt.tid), svc.len, svc.p);
    } else {
        log_printf("<!> END service_depth max error!(val:(%d)->(%d) (MAX:%d)) GID-PID-TID|%.*s|-|%d|-|%d|, SVC (%.*s).",
                   depth, depth - 1, VARNIX_SVC_DEPTH_MAX, gid.len, gid.p, cxt.pid, static_cast<int>(cxt.tid), svc.len,
                   svc.p);
        cxt.service_depth = static_cast<int8_t>(depth - 1);  // the entry's copy stays as it was
    }
    return false;
}

void check_log_bit(const MTR_CXT_VAR& cxt, const ServiceArgs& a, const SvcLevel& level) {
    if ((cxt.log_bit & kStartBit) && !(cxt.log_bit & kEndBit)) return;
    Printable gid = printable_max(a.gid, 32, 32);
    Printable svc = printable_max(a.svc_id, 16, 16);
    log_printf("[CHECK_LOG_BIT] NOK, set END_BIT [ tid : %d, log_bit : %d, PID : %d, GID - Keep {%.*s} Now {%.*s}, "
               "SVC_ID - Keep {%.*s} Now {%.*s} ]",
               static_cast<int>(cxt.tid), cxt.log_bit, gvar.pid, 32, level.gid, gid.len, gid.p, 16, level.svc_id,
               svc.len, svc.p);
}

float average_ms(int64_t sum_us, uint32_t count) {
    return sum_us == 0 ? 0.0f : static_cast<float>(sum_us) / static_cast<float>(count) / 1000.0f;
}

void send_statistics(const ServiceKind& kind, const MTR_CXT_VAR& cxt, int32_t tid) {
    const PTRC_HASH& e = *cxt.ptrc;
    const CallStat& s = cxt.call_stat;
    // Counts are reported as the signed numbers the collector reads.
    auto n32 = [](uint32_t v) { return static_cast<int32_t>(v); };
    TextOut<1023> t;
    t.text("처리 모듈(함수)통계 [ 총 호출 "sv).number(e.total_call_cnt).text(" 건 ] [ Max Depth "sv);
    t.number(n32(s.max_call_depth)).text(" ] [ BIZCALL(Method) "sv).number(n32(s.biz_cnt)).text("건 (전체 Avg/Max "sv);
    t.fixed2(average_ms(s.biz_elapsed_sum, s.biz_cnt), 6).ch('/').number(s.biz_max_ms).text(" ms, 개별 Max "sv);
    t.number(s.biz_self_max_ms).text(" ms) ], [ DBIO "sv).number(n32(s.dbio_cnt)).text("건 (Avg/Max "sv);
    t.fixed2(average_ms(s.dbio_elapsed_sum, s.dbio_cnt), 6).ch('/').number(s.dbio_max_ms).text(" ms)"sv);
    if (kind.stats_with_fetch) {
        const int32_t fetch_time = e.fetch_time_sum;
        t.text(" fetch "sv).number(e.fetch_rows_sum).text(" rows ("sv).number(fetch_time / 1000).ch('.');
        t.number(fetch_time % 1000).text(" ms), (DBConn "sv);
        t.text({e.db_user, strnlen(e.db_user, sizeof e.db_user)}).ch('/');
        t.text({e.db_sid, strnlen(e.db_sid, sizeof e.db_sid)}).ch(')');
    }
    t.text(" ]"sv);
    Notice n;
    n.msg_text = {t.data(), t.size()};
    (void)tran_info(tid, n);
}

// The first 30 characters of the caller's GID, blank-padded as the start
// stored them; never read past what the caller gave.
bool gid_changed(Text gid, const SvcLevel& level) {
    Printable g = printable_max(gid, kGidCompared, kGidCompared);
    char padded[kGidCompared];
    std::memset(padded, ' ', sizeof padded);
    std::memcpy(padded, g.p, static_cast<size_t>(g.len));
    return std::memcmp(padded, level.gid, sizeof padded) != 0;
}

void report_gid_change(const ServiceArgs& a, const SvcLevel& level) {
    Printable gid = printable_max(a.gid, kGidCompared, kGidCompared);
    char text[1024];
    std::snprintf(text, sizeof text, "< Warning!! > GID %d Bytes Changed.[ Start GID '%.*s' -> End GID '%.*s' ]",
                  kGidCompared, kGidCompared, level.gid, gid.len, gid.p);
    Notice info;
    info.gid = level_gid(level);
    info.svc_id = a.svc_id;
    info.msg_text = {text, -1};
    (void)tran_info(a.tid, info);
    info.gid = a.gid;
    (void)tran_info(a.tid, info);
    Notice event;
    event.gid = level_gid(level);
    event.svc_id = level_svc_id(level);
    event.code = {"1801", -1};
    event.recv_svc_cd = {level.evt_cd, sizeof level.evt_cd};
    event.chnl_class = {"", 0};
    event.msg_text = {text, -1};
    int rc = tran_event(a.tid, event);
    log_printf("(I) EVENT_GLOBAL_ID_CHANGED (GID %.*s) TRAN_EVENT ret = %d", gid.len, gid.p, rc);
}

int complete_snapshot(const MTR_CXT_VAR& cxt, const ServiceArgs& a) {
    PTRC_HASH& e = *cxt.ptrc;
    const int tr_len = static_cast<int>(strnlen(e.snapshot_tr_cd, sizeof e.snapshot_tr_cd));
    char text[1024];
    std::snprintf(text, sizeof text,
                  "거래코드(%.*s)에 대한 SNAPSHOT 모니터링을 완료하였습니다. [서비스(%-*.*s) 응답시간: %-*.*s (us)]",
                  tr_len, e.snapshot_tr_cd, 16, 16, cxt.log_body + hdr::kSvcId, 10, 10, cxt.log_body + kElapsedAt);
    Notice n;
    n.cls_cd = a.cls_cd;
    n.dtl_cd = a.dtl_cd;
    n.gid = a.gid;
    n.svc_id = a.svc_id;
    n.code = {"1302", -1};
    n.recv_svc_cd = {e.snapshot_tr_cd, tr_len};
    n.chnl_class = {&e.chnl_class, 1};
    n.msg_text = {text, -1};
    int rc = tran_event(a.tid, n);
    e.snapshot_state = 0;
    e.snapshot_aux = 0;
    return rc;
}

}  // namespace

int service_end(const ServiceKind& kind, const ServiceArgs& a) {
    MTR_CXT_VAR* cp = nullptr;
    if (int rc = record_context('2', a.tid, cp); rc != kOk) return rc;
    MTR_CXT_VAR& cxt = *cp;
    if (!depth_in_range(cxt, a)) return VARNIX_RC_SVC_DEPTH;
    const int depth = cxt.service_depth;
    const SvcLevel level = cxt.svc_stack[depth - 1];
    if (int rc = trace_validate(cxt, '2', kind.end_api, cxt.log_body, level.svc_id, sizeof level.svc_id);
        rc != kOk) {
        set_service_depth(cxt, depth - 1);
        return rc;
    }
    const bool outermost = depth == 1;
    PTRC_HASH& e = *cxt.ptrc;
    if (outermost) {
        check_log_bit(cxt, a, level);
        if (e.total_call_cnt > 0) send_statistics(kind, cxt, a.tid);
    }
    if (kind.gid_change_check && a.gid.p && gid_changed(a.gid, level)) report_gid_change(a, level);
    // The notices above wrote their own service ids into the shared record.
    put_bytes<sizeof level.svc_id>(cxt.log_body + hdr::kSvcId, level.svc_id, sizeof level.svc_id);
    if (outermost) cxt.log_bit |= kEndBit;

    // Only an outermost end whose start was recorded measures the service.
    const bool timed = outermost && cxt.log_bit != kEndBit;
    write_service_body(cxt, kind, a,
                       ServiceRecord{'2', level_gid(level), timed ? &e.svc_end_tv : nullptr, &e.svc_start_tv,
                                     e.call_elapsed_sum, depth});
    int result = tran_logb(cxt, cxt.log_rec);
    if (outermost) {
        mark_outermost_end(e);
        if (e.snapshot_state == 3) result = complete_snapshot(cxt, a);
    }
    set_service_depth(cxt, depth - 1);
    return result;
}

}  // namespace varnix
