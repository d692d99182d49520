// Event and error-information records.
#include "api/notice.h"
#include "core/entry_gate.h"
#include "core/gvar.h"
#include "core/status.h"
#include "record/record.h"
#include "varnix.h"

namespace varnix {
namespace {

constexpr NoticeLayout kEvent{'V', kTranEventApi, 197, true, 220, kEventTextWidth};
constexpr NoticeLayout kErrinfo{'E', kTranErrinfoApi, 197, true, 220, kNoticeTextWidth};

int send_event(MTR_CXT_VAR& cxt, const Notice& n) {
    if (int rc = trace_validate(cxt, kEvent.log_type, kEvent.api_type, cxt.log_body, n.svc_id.p, n.svc_id.len);
        rc != kOk)
        return rc;
    return send_notice(cxt, kEvent, n, n.gid);
}

}  // namespace

int tran_event(int32_t tid, const Notice& n) {
    MTR_CXT_VAR* cxt = nullptr;
    if (int rc = record_context(kEvent.log_type, tid, cxt); rc != kOk) return rc;
    return send_event(*cxt, n);
}

int tran_event(MTR_CXT_VAR& cxt, const Notice& n) {
    if (int rc = check_gvar(kEvent.log_type); rc != kOk) return rc;
    return send_event(cxt, n);
}

int tran_errinfo(int32_t tid, const Notice& n) {
    MTR_CXT_VAR* cxt = nullptr;
    if (int rc = record_context(kErrinfo.log_type, tid, cxt); rc != kOk) return rc;
    const SvcLevel* level = current_svc_level(*cxt);
    if (!level) return VARNIX_RC_SVC_DEPTH;
    Text svc = level_svc_id(*level);
    if (int rc = trace_validate(*cxt, kErrinfo.log_type, kErrinfo.api_type, cxt->log_body, svc.p, svc.len);
        rc != kOk)
        return rc;
    return send_notice(*cxt, kErrinfo, n, level_gid(*level));
}

}  // namespace varnix

using varnix::Notice;

#define VARNIX_NOTICE                                                                                          \
    Notice {                                                                                                   \
        {cls_cd, cls_cd_len}, {dtl_cd, dtl_cd_len}, {gid, gid_len}, {svc_id, svc_id_len}, {pid_str, pid_str_len}, \
            {date_str, date_str_len}, {time_str, time_str_len}, {evt_no, evt_no_len},                          \
            {recv_svc_cd, recv_svc_cd_len}, {chnl_class, chnl_class_len}, {msg_text, msg_text_len}             \
    }

extern "C" {

int32_t TRAN_EVENT(VARNIX_NOTICE_PARAMS) {
    const varnix::EntryGate gate;
    return varnix::tran_event(tid, VARNIX_NOTICE);
}
int32_t TRAN_ERRINFO(VARNIX_NOTICE_PARAMS) {
    const varnix::EntryGate gate;
    return varnix::tran_errinfo(tid, VARNIX_NOTICE);
}

}  // extern "C"
