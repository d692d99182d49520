// Trace records: the common header of every body, validation of a record
// against the thread's state, and dispatch to a collector queue.
#pragma once

#include <sys/time.h>

#include <cstdint>

#include "context/mtr_cxt.h"
#include "core/clock.h"
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
[[gnu::visibility("hidden")]] extern const char* const api_type_nm[20];

// The caller's header arguments (each blank when its pointer is null; date
// and time are now when not given).
struct HeaderArgs {
    Text cls_cd, dtl_cd, gid, pid_str, date_str, time_str;
};

// The clock, read at most once for all the fields of one record that show
// the time of the call.
class Now {
public:
    Now() = default;
    // A reading the caller already took.
    explicit Now(const timeval& taken) : tv_(taken), read_(true) {}
    const timeval& get() {
        if (!read_) {
            tv_ = clock_now();
            read_ = true;
        }
        return tv_;
    }

private:
    timeval tv_{};
    bool read_ = false;
};

// Writes log_type, cls_cd, dtl_cd, gid, the pid when given, date and time:
// the caller's, else the date of now and the time of `time_of`, or of now.
void write_header(char* body, char log_type, const HeaderArgs& a, Now& now, const timeval* time_of = nullptr);
inline void write_header(char* body, char log_type, const HeaderArgs& a) {
    Now now;
    write_header(body, log_type, a, now);
}

// 0 to go on and send, else the status the API returns without sending.
// `snapshot_key`: what a service start compares with the trade code of an
// armed snapshot (read as a C string of at most 15 characters); absent for
// every other record.
int trace_validate(MTR_CXT_VAR& cxt, char log_type, char api_type, char* body, const char* svc_nm, int svc_len,
                   Text snapshot_key = {});

// Sends `rec` to the queue its GID slice picks: the queue number, 105 when the
// queue refused it, 102 for a type that is not sent.
int tran_logb(MTR_CXT_VAR& cxt, TRAN_LOG_MSG& rec);

}  // namespace varnix
