// Event and error-information records: notices that belong to the calling
// thread (or the thread it names), sent from the context's primary record.
#include "api/notice.h"
#include "core/gvar.h"
#include "core/status.h"
#include "varnix.h"
#include "record/record.h"

namespace varnix {
namespace {

namespace body {
constexpr int kEvtNo = 197;
constexpr int kRecvSvcCd = 202;
constexpr int kChnlClass = 215;
constexpr int kMsgText = 220;
}  // namespace body

struct NoticeKind {
    char log_type;
    char api_type;
    int msg_width;
};
constexpr NoticeKind kEvent{'V', kTranEventApi, 512};
constexpr NoticeKind kErrinfo{'E', kTranErrinfoApi, 350};

// Writes the header and the notice fields and sends the record.  `gid` of the
// notice is used only when `gid_from_args`; the caller wrote it otherwise.
int send_notice(MTR_CXT_VAR& cxt, const NoticeKind& kind, const Notice& n, bool gid_from_args) {
    char* b = cxt.log_body;
    write_header(cxt, b, kind.log_type,
                 HeaderArgs{n.cls_cd, n.dtl_cd, n.gid, n.pid_str, n.date_str, n.time_str}, gid_from_args);
    set_log_field(n.evt_no, b + body::kEvtNo, 4);
    set_log_field(n.recv_svc_cd, b + body::kRecvSvcCd, 12);
    set_log_field(n.chnl_class, b + body::kChnlClass, 4);
    set_log_field(n.msg_text, b + body::kMsgText, kind.msg_width);
    *cxt.log_len = static_cast<uint32_t>(body::kMsgText + kind.msg_width + 1);
    return tran_logb(cxt, cxt.log_rec);
}

int send_event(MTR_CXT_VAR& cxt, const Notice& n) {
    if (int rc = trace_validate(cxt, kEvent.log_type, kEvent.api_type, cxt.log_body, n.svc_id.p, n.svc_id.len,
                                nullptr);
        rc != kOk)
        return rc;
    return send_notice(cxt, kEvent, n, true);
}

}  // namespace

int tran_event(int32_t tid, const Notice& n) {
    if (int rc = check_gvar(kEvent.log_type); rc != kOk) return rc;
    MTR_CXT_VAR* cxt = nullptr;
    if (int rc = get_mtr_cxt_var(tid, &cxt); rc != kOk) return rc;
    return send_event(*cxt, n);
}

int tran_event(MTR_CXT_VAR& cxt, const Notice& n) {
    if (int rc = check_gvar(kEvent.log_type); rc != kOk) return rc;
    return send_event(cxt, n);
}

int tran_errinfo(int32_t tid, const Notice& n) {
    if (int rc = check_gvar(kErrinfo.log_type); rc != kOk) return rc;
    MTR_CXT_VAR* cxt = nullptr;
    if (int rc = get_mtr_cxt_var(tid, &cxt); rc != kOk) return rc;
    const SvcLevel* open = current_svc_level(*cxt);
    if (!open) return VARNIX_RC_SVC_DEPTH;
    const SvcLevel& level = *open;
    if (int rc = trace_validate(*cxt, kErrinfo.log_type, kErrinfo.api_type, cxt->log_body, level.svc_id,
                                sizeof level.svc_id, nullptr);
        rc != kOk)
        return rc;
    set_log_field(level.gid, sizeof level.gid, cxt->log_body + hdr::kGid, sizeof level.gid, 1);
    return send_notice(*cxt, kErrinfo, n, false);
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

int32_t TRAN_EVENT(VARNIX_NOTICE_PARAMS) { return varnix::tran_event(tid, VARNIX_NOTICE); }
int32_t TRAN_ERRINFO(VARNIX_NOTICE_PARAMS) { return varnix::tran_errinfo(tid, VARNIX_NOTICE); }

}  // extern "C"
