// Information and extended-information records.
#include <cstring>

#include "api/notice.h"
#include "core/entry_gate.h"
#include "core/gvar.h"
#include "core/log_printf.h"
#include "core/status.h"
#include "record/record.h"
#include "varnix.h"

namespace varnix {
namespace {

constexpr NoticeLayout kInfo{'I', kTranInfoApi, -1, false, 197, kNoticeTextWidth};
constexpr NoticeLayout kInfoEx{'X', kTranInfoExApi, 197, false, 202, kNoticeTextWidth};
constexpr int kGidPrintMax = 30;

int gid_print_len(Text gid) {
    if (!gid.p) return 0;
    if (gid.len != -1) return gid.len;
    return static_cast<int>(strnlen(gid.p, kGidPrintMax));
}

// The caller's GID, else the open service's.
Text gid_or_level(const Notice& n, const SvcLevel* level) {
    if (n.gid.p || !level) return n.gid;
    return level_gid(*level);
}

}  // namespace

int tran_info(int32_t tid, const Notice& n) {
    MTR_CXT_VAR* cxt = nullptr;
    if (int rc = record_context(kInfo.log_type, tid, cxt); rc != kOk) return rc;
    const SvcLevel* level = current_svc_level(*cxt);
    Text svc = n.svc_id;
    if (!svc.p && level) svc = level_svc_id(*level);
    if (!svc.p) {
        log_printf("<!> INFO service_depth error!(val:%d (MAX:%d)), GID-PID-TID |%.*s|-|%d|-|%d|", cxt->service_depth,
                   VARNIX_SVC_DEPTH_MAX, gid_print_len(n.gid), n.gid.p ? n.gid.p : "", cxt->pid,
                   static_cast<int>(cxt->tid));
        return VARNIX_RC_SVC_DEPTH;
    }
    if (int rc = trace_validate(*cxt, kInfo.log_type, kInfo.api_type, cxt->log_body, svc.p, svc.len);
        rc != kOk)
        return rc;
    return send_notice(*cxt, kInfo, n, gid_or_level(n, level));
}

int tran_info_ex(int32_t tid, const Notice& n) {
    MTR_CXT_VAR* cxt = nullptr;
    if (int rc = record_context(kInfoEx.log_type, tid, cxt); rc != kOk) return rc;
    if (int rc = trace_validate(*cxt, kInfoEx.log_type, kInfoEx.api_type, cxt->log_body, n.svc_id.p, n.svc_id.len);
        rc != kOk)
        return rc;
    return send_notice(*cxt, kInfoEx, n, gid_or_level(n, current_svc_level(*cxt)));
}

}  // namespace varnix

using varnix::Notice;

extern "C" {

int32_t TRAN_INFO(int32_t tid, const char* cls_cd, int32_t cls_cd_len, const char* dtl_cd, int32_t dtl_cd_len,
                  const char* gid, int32_t gid_len, const char* svc_id, int32_t svc_id_len, const char* pid_str,
                  int32_t pid_str_len, const char* date_str, int32_t date_str_len, const char* time_str,
                  int32_t time_str_len, const char* msg_text, int32_t msg_text_len) {
    const varnix::EntryGate gate;
    Notice n{{cls_cd, cls_cd_len},     {dtl_cd, dtl_cd_len},     {gid, gid_len},
             {svc_id, svc_id_len},     {pid_str, pid_str_len},   {date_str, date_str_len},
             {time_str, time_str_len}, {},                       {},
             {},                       {msg_text, msg_text_len}};
    return varnix::tran_info(tid, n);
}

int32_t TRAN_INFO_EX(int32_t tid, const char* cls_cd, int32_t cls_cd_len, const char* dtl_cd, int32_t dtl_cd_len,
                     const char* gid, int32_t gid_len, const char* svc_id, int32_t svc_id_len, const char* pid_str,
                     int32_t pid_str_len, const char* date_str, int32_t date_str_len, const char* time_str,
                     int32_t time_str_len, const char* info_cd, int32_t info_cd_len, const char* msg_text,
                     int32_t msg_text_len) {
    const varnix::EntryGate gate;
    Notice n{{cls_cd, cls_cd_len},     {dtl_cd, dtl_cd_len},   {gid, gid_len},
             {svc_id, svc_id_len},     {pid_str, pid_str_len}, {date_str, date_str_len},
             {time_str, time_str_len}, {info_cd, info_cd_len}, {},
             {},                       {msg_text, msg_text_len}};
    return varnix::tran_info_ex(tid, n);
}

}  // extern "C"
