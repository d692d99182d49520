// Call statistics of the service running on a thread.  Only the thread's own
// call finishes touch its context's statistics and its process-thread entry;
// the collector reads the raised limits from shared memory.
#include "api/calc_call_stat.h"

#include <cstdio>
#include <cstring>

#include "api/notice.h"
#include "core/gvar.h"
#include "record/record.h"

namespace varnix {
namespace {

// After excessive calling only calls and SQL texts of at least 0.2 seconds
// are recorded for the rest of the service.
constexpr int64_t kExcessCallLimitUs = 200000;

void raise_limit(int64_t& limit, int64_t floor) {
    if (limit < floor) limit = floor;
}

// Event 1300 about the service, with the header codes of the thread's last
// record and the service id of the call being finished; copied out first,
// since the event rewrites that record.
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
    const SvcLevel* level = current_svc_level(cxt);
    if (level) std::memcpy(svc_id, level->svc_id, sizeof svc_id);
    else std::memcpy(svc_id, cxt.log_body + hdr::kSvcId, sizeof svc_id);
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

namespace call_stat_detail {

void excess_calls(MTR_CXT_VAR& cxt, int32_t base_cnt) {
    PTRC_HASH& e = *cxt.ptrc;
    report_excess(cxt, base_cnt);
    raise_limit(e.call_trc_limit, kExcessCallLimitUs);
    raise_limit(e.dbio_trc_limit, kExcessCallLimitUs);
    raise_limit(e.sql_trc_limit, kExcessCallLimitUs);
    cxt.call_stat.excess_call_flag = 1;
}

}  // namespace call_stat_detail

}  // namespace varnix
