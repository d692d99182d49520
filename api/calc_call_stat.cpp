// Call statistics of the service running on a thread.  Only the thread's own
// call finishes touch its context's statistics and its process-thread entry;
// the collector reads the raised limits from shared memory.
#include "api/calc_call_stat.h"

#include <cstdio>
#include <cstring>

#include "api/notice.h"
#include "core/gvar.h"
#include "core/saturate.h"
#include "record/record.h"

namespace varnix {
namespace {

// After excessive calling only calls and SQL texts of at least 0.2 seconds
// are recorded for the rest of the service.
constexpr int64_t kExcessCallLimitUs = 200000;

int32_t to_ms(int64_t us) { return clamp_to<int32_t>(us / 1000); }

void raise_to(int32_t& max, int32_t value) {
    if (value > max) max = value;
}

void raise_to(int64_t& limit, int64_t floor) {
    if (limit < floor) limit = floor;
}

// Time spent in the calls the finishing call made: the sums of the level
// below it (none below the last level).
int64_t children_elapsed(const PTRC_HASH& e) {
    const int below = e.trc_lvl;
    return below >= 0 && below < VARNIX_CALL_LVL_CNT ? e.call_lvl[below].elapsed_sum : 0;
}

// Event 1300 about the service, with the header codes of the thread's last
// record; copied out first, since the event rewrites that record.
void report_excess(MTR_CXT_VAR& cxt, int32_t base_cnt) {
    const PTRC_HASH& e = *cxt.ptrc;
    char text[512];
    std::snprintf(text, sizeof text,
                  "서비스(%-*.*s) 수행 도중, BIZCALL(Method) 또는 DBIO함수 과다 호출(기준 %d건초과) 증상이 "
                  "발견되었습니다.",
                  16, 16, e.main_svc_id, base_cnt);
    char cls_cd[2], dtl_cd[1], gid[32], svc_id[16], recv_svc_cd[12];
    std::memcpy(cls_cd, cxt.log_body + hdr::kClsCd, sizeof cls_cd);
    std::memcpy(dtl_cd, cxt.log_body + hdr::kDtlCd, sizeof dtl_cd);
    std::memcpy(gid, cxt.log_body + hdr::kGid, sizeof gid);
    std::memcpy(svc_id, cxt.log_body + hdr::kSvcId, sizeof svc_id);
    std::memcpy(recv_svc_cd, e.main_recv_svc_cd, sizeof recv_svc_cd);
    const char chnl_class = e.chnl_class;
    Notice n;
    n.cls_cd = {cls_cd, sizeof cls_cd};
    n.dtl_cd = {dtl_cd, sizeof dtl_cd};
    n.gid = {gid, sizeof gid};
    n.svc_id = {svc_id, sizeof svc_id};
    n.code = {"1300", 4};
    n.recv_svc_cd = {recv_svc_cd, sizeof recv_svc_cd};
    n.chnl_class = {&chnl_class, 1};
    n.msg_text = {text, -1};
    (void)tran_event(cxt, n);  // the limits go up whether or not events are recorded
}

}  // namespace

void calc_call_stat(MTR_CXT_VAR& cxt, int64_t elapsed_us, char kind) {
    if (!cxt.ptrc) return;
    PTRC_HASH& e = *cxt.ptrc;
    CallStat& st = cxt.call_stat;
    if (kind == 'B') {
        st.dbio_elapsed_sum = sat_add(st.dbio_elapsed_sum, elapsed_us);
        ++st.dbio_cnt;
        raise_to(st.dbio_max_ms, to_ms(elapsed_us));
    } else {
        st.biz_elapsed_sum = sat_add(st.biz_elapsed_sum, elapsed_us);
        ++st.biz_cnt;
        raise_to(st.biz_max_ms, to_ms(elapsed_us));
        raise_to(st.biz_self_max_ms, to_ms(sat_sub(elapsed_us, children_elapsed(e))));
    }
    const int32_t base_cnt = gvar.infinite_loop_base_cnt;
    if (static_cast<int64_t>(st.biz_cnt) + st.dbio_cnt <= base_cnt || st.excess_call_flag != 0) return;
    report_excess(cxt, base_cnt);
    raise_to(e.call_trc_limit, kExcessCallLimitUs);
    raise_to(e.dbio_trc_limit, kExcessCallLimitUs);
    raise_to(e.sql_trc_limit, kExcessCallLimitUs);
    st.excess_call_flag = 1;
}

}  // namespace varnix
