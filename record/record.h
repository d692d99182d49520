// Trace records: the common header of every body, validation of a record
// against the thread's state, and dispatch to a collector queue.
#pragma once

#include <sys/time.h>

#include <cstdint>

#include "context/mtr_cxt.h"
#include "core/clock.h"
#include "record/log_field.h"

namespace varnix {

// Body offsets of the common header.
namespace hdr {
inline constexpr int kLogType = 0;
inline constexpr int kClsCd = 2;
inline constexpr int kDtlCd = 5;
inline constexpr int kGid = 7;
inline constexpr int kProcNm = 40;
inline constexpr int kSvcId = 56;
inline constexpr int kHostNm = 73;
inline constexpr int kPid = 138;
inline constexpr int kTid = 147;
inline constexpr int kIdx = 163;
inline constexpr int kPidx = 169;
inline constexpr int kDate = 175;
inline constexpr int kTime = 184;
inline constexpr int kEnd = 197;
}  // namespace hdr

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
// The thread's tid, idx and pidx fields, written once when its context is made.
void write_thread_ids(const MTR_CXT_VAR& cxt, char* body);

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
