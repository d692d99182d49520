// Trace records: the common header of every body, validation of a record
// against the thread's state, and dispatch to a collector queue.
#pragma once

#include <sys/time.h>

#include <cstdint>

#include "context/mtr_cxt.h"
#include "core/log_field.h"
#include "core/record_header.h"

namespace varnix {

// API type numbers, passed to trace_validate; api_type_nm[n - 'd'] names them.
enum ApiType : char {
    kTranStartApi = 'd',
    kTranEndApi = 'e',
    kTranErrorApi = 'f',
    kTranErrinfoApi = 'g',
    kTranCallinfoSApi = 'h',
    kTranCallinfoFApi = 'i',
    kTranSqlStmtApi = 'j',
    kTranInfoApi = 'k',
    kTranInfoExApi = 'l',
    kTranEventApi = 'm',
    kTranClhStartApi = 'n',
    kTranClhEndApi = 'o',
    kTranClhErrorApi = 'p',
    kTranFepStartApi = 'q',
    kTranFepEndApi = 'r',
    kTranFepErrorApi = 's',
    kTranPtStartApi = 't',
    kTranPtEndApi = 'u',
    kTranWebStartApi = 'v',
    kTranWebEndApi = 'w',
};
extern const char* const api_type_nm[20];

// The caller's header arguments (each blank when its pointer is null; date
// and time are now when not given).
struct HeaderArgs {
    Text cls_cd, dtl_cd, gid, pid_str, date_str, time_str;
};

// Writes log_type, cls_cd, dtl_cd, gid, the pid when given, date and time.
void write_header(char* body, char log_type, const HeaderArgs& a);
// The local date and time fields of now, and the time field of an instant.
void put_date_now(char* body);
void put_time_now(char* body);
void put_time(char* body, const timeval& tv);

// 0 to go on and send, else the status the API returns without sending.
int trace_validate(MTR_CXT_VAR& cxt, char log_type, char api_type, char* body, const char* svc_nm, int svc_len,
                   const char* snapshot_key);

// Sends `rec` to the queue its GID slice picks: the queue number, 105 when the
// queue refused it, 102 for a type that is not sent.
int tran_logb(MTR_CXT_VAR& cxt, TRAN_LOG_MSG& rec);

}  // namespace varnix
