#include "api/notice.h"

#include "core/gvar.h"
#include "core/status.h"
#include "record/record.h"

namespace varnix {
namespace {

constexpr size_t kCodeWidth = 4;
constexpr int kRecvSvcCdAt = 202;
constexpr int kChnlClassAt = 215;

}  // namespace

const char* result_error_no(char result) {
    switch (result) {
        case '0':
        case ' ': return nullptr;
        case '1': return "1105";
        case '8': return "1106";
        case '9': return "1107";
        default: return "9999";
    }
}

int record_context(char log_type, int32_t tid, MTR_CXT_VAR*& cxt) {
    if (int rc = check_gvar(log_type); rc != kOk) return rc;
    return get_mtr_cxt_var(tid, &cxt);
}

Text level_gid(const SvcLevel& level) { return {level.gid, sizeof level.gid}; }
Text level_svc_id(const SvcLevel& level) { return {level.svc_id, sizeof level.svc_id}; }

int send_notice(MTR_CXT_VAR& cxt, const NoticeLayout& layout, const Notice& n, Text gid) {
    char* b = cxt.log_body;
    write_header(b, layout.log_type, HeaderArgs{n.cls_cd, n.dtl_cd, gid, n.pid_str, n.date_str, n.time_str});
    if (layout.code_at >= 0) put_field<kCodeWidth>(b + layout.code_at, n.code);
    if (layout.has_receiver) {
        put_field<12>(b + kRecvSvcCdAt, n.recv_svc_cd);
        put_field<4>(b + kChnlClassAt, n.chnl_class);
    }
    char* msg = b + layout.msg_at;
    if (layout.msg_width == kEventTextWidth) put_field<kEventTextWidth>(msg, n.msg_text);
    else put_field<kNoticeTextWidth>(msg, n.msg_text);
    *cxt.log_len = static_cast<uint32_t>(layout.msg_at + layout.msg_width + 1);
    return tran_logb(cxt, cxt.log_rec);
}

}  // namespace varnix
