// Event and error-information records, for the library's own notices too.
#pragma once

#include <cstdint>

#include "context/mtr_cxt.h"
#include "record/log_field.h"

namespace varnix {

// The text arguments of a notice; absent ones leave their fields blank.
struct Notice {
    Text cls_cd, dtl_cd, gid, svc_id, pid_str, date_str, time_str, evt_no, recv_svc_cd, chnl_class, msg_text;
};

// The queue that carried the record, or the status that stopped it.
int tran_event(int32_t tid, const Notice& n);
// The same on a context the caller already holds (the library's own notices
// about the thread's work).
int tran_event(MTR_CXT_VAR& cxt, const Notice& n);
// Takes the GID and service id of the service open on the thread instead of
// those of `n`; 123 outside a service.
int tran_errinfo(int32_t tid, const Notice& n);

}  // namespace varnix
