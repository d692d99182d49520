// Notices: free-text records of a thread (events, error information,
// information and extended information), also sent by the library itself.
#pragma once

#include <cstdint>

#include "context/mtr_cxt.h"
#include "core/log_field.h"

namespace varnix {

// The text arguments of a notice; absent ones leave their fields blank.
// `code` is the event number, the error number or the information code.
struct Notice {
    Text cls_cd, dtl_cd, gid, svc_id, pid_str, date_str, time_str, code, recv_svc_cd, chnl_class, msg_text;
};

// The widths of a notice's text: an event's, every other notice's.
inline constexpr size_t kEventTextWidth = 512;
inline constexpr size_t kNoticeTextWidth = 350;

// Where a kind of notice puts its fields after the common header.
struct NoticeLayout {
    char log_type;
    char api_type;
    int code_at;       // -1: no code field
    bool has_receiver;  // recv_svc_cd and chnl_class
    int msg_at;
    size_t msg_width;  // kEventTextWidth or kNoticeTextWidth
};

// The initialization check for `log_type`, then the context of `tid`: 0
// with `cxt` set, or the status that stops the record.
int record_context(char log_type, int32_t tid, MTR_CXT_VAR*& cxt);

// Writes the notice into the context's primary record, with `gid` in the GID
// field, and sends it: the queue, or the dispatch status.
int send_notice(MTR_CXT_VAR& cxt, const NoticeLayout& layout, const Notice& n, Text gid);

// The GID and service id of the service open on the thread, as Text.
Text level_gid(const SvcLevel& level);
Text level_svc_id(const SvcLevel& level);

// The error-information number of a telegram's processing result code:
// "1105", "1106" or "1107" for 1, 8 and 9, "9999" for any other failure;
// null for a normal result ('0' or blank).
const char* result_error_no(char result);

// Each returns the queue that carried the record, or the status that stopped it.
int tran_event(int32_t tid, const Notice& n);
// The same on a context the caller already holds (the library's own notices
// about the thread's work).
int tran_event(MTR_CXT_VAR& cxt, const Notice& n);
// Takes the GID and service id of the service open on the thread instead of
// those of `n`; 123 outside a service.
int tran_errinfo(int32_t tid, const Notice& n);
// Missing GID and service id come from the service open on the thread; 123
// when there is neither a service id nor an open service.
int tran_info(int32_t tid, const Notice& n);
int tran_info_ex(int32_t tid, const Notice& n);

}  // namespace varnix
