// Calls inside a service, for the tests of call tracing and call statistics:
// a service opened the way the service start leaves it, the two call entries
// with fixed header arguments, and a reader of the call record's time fields.
#pragma once

#include <sys/time.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>

#include "context/mtr_cxt.h"
#include "record/record.h"
#include "support/tracing.h"
#include "varnix.h"

namespace varnix::test {

// Header arguments every test finish passes; the record shows them.
inline constexpr const char* kFinishDate = "20260102";
inline constexpr const char* kFinishTime = "030405123456";

// Leaves `cxt` as an outermost service start does, without sending its
// record: depth 1 in the context and its process-thread entry, log_bit 1
// (started, not ended), the level-1 GID and service id in both stacks, the
// entry's main service fields (receiving service "RECV-SVC-01", channel
// class 'O'), zeroed call statistics, and a start header (cls_cd "ST", dtl_cd
// "1", the GID) in the primary buffer.  The call levels and the limits are set
// by the validation of a '1' record, as at a real start: from the control
// block, or from the service table when filtering is on and the service is
// listed.  The validation's result (0 when the service is traced).
inline int open_service(MTR_CXT_VAR& cxt, std::string_view gid, std::string_view svc_id) {
    PTRC_HASH& e = *cxt.ptrc;
    const std::string g = padded(gid, 32), s = padded(svc_id, 16), recv = padded("RECV-SVC-01", 12);
    cxt.service_depth = 1;
    e.service_depth = 1;
    std::memcpy(cxt.svc_stack[0].gid, g.data(), 32);
    std::memcpy(cxt.svc_stack[0].svc_id, s.data(), 16);
    std::memcpy(e.svc_stack[0].gid, g.data(), 32);
    std::memcpy(e.svc_stack[0].svc_id, s.data(), 16);
    std::memcpy(e.main_gid, g.data(), 32);
    std::memcpy(e.main_svc_id, s.data(), 16);
    std::memcpy(e.main_recv_svc_cd, recv.data(), 12);
    e.chnl_class = 'O';
    cxt.call_stat = CallStat{};
    write_header(cxt, cxt.log_body, '1', HeaderArgs{{"ST", 2}, {"1", 1}, {g.data(), 32}, {}, {}, {}});
    const int rc = trace_validate(cxt, '1', kTranStartApi, cxt.log_body, s.data(), 16, nullptr);
    cxt.log_bit = 1;
    return rc;
}

inline int call_start(const char* func, const char* module = "start_mod", const char* source = "start.c",
                      int32_t line = 7, int32_t opt = 0, int32_t tid = -1) {
    // The header pairs are not used by a start; they are given all the same.
    return TRAN_CALLINFO_S(tid, "XX", -1, "Y", -1, "START-GID", -1, "START-SVC", -1, "99999999", -1, "19990101", -1,
                           "235959000000", -1, module, -1, source, -1, line, opt, func);
}

inline int call_finish(const char* func, int32_t rc = 0, const char* label = nullptr,
                       const char* module = "fin_mod", const char* source = "fin.c", int32_t line = 42,
                       int32_t tid = -1) {
    // The GID and service pairs are not used: the open service gives them.
    // The name lengths are not used either, hence the short ones here.
    return TRAN_CALLINFO_F(tid, "CL", -1, "D", -1, "IGNORED-GID", -1, "IGNORED-SVC", -1, nullptr, 0, kFinishDate, -1,
                           kFinishTime, -1, module, 5, source, 5, line, rc, func, 3, label, 2);
}

inline int64_t usec_of(const timeval& tv) { return static_cast<int64_t>(tv.tv_sec) * 1000000 + tv.tv_usec; }

// "%ld.%06ld" of a microsecond count or of a time.
inline std::string secs_text(int64_t us) {
    char b[48];
    std::snprintf(b, sizeof b, "%ld.%06ld", static_cast<long>(us / 1000000), static_cast<long>(us % 1000000));
    return b;
}
inline std::string secs_text(const timeval& tv) { return secs_text(usec_of(tv)); }

// Moves the start of the call open at `level` back by `us`: the call then
// lasts at least that long.
inline void age(PTRC_HASH& e, int level, int64_t us) {
    timeval& tv = e.call_lvl[level].start_tv;
    const int64_t t = usec_of(tv) - us;
    tv.tv_sec = t / 1000000;
    tv.tv_usec = t % 1000000;
}

// The leading numbers of a call record's text: level, depth limit, elapsed,
// own, called and DBIO times (microseconds), start and end; the text from
// the first '[' on.
struct CallText {
    int level = -1, depth_max = -1;
    int64_t elapsed = -1, own = -1, called = -1, dbio = -1, start = -1, end = -1;
    std::string rest;
};

inline CallText parse_call_text(const TRAN_LOG_MSG& m) {
    const std::string text(body_field(m, 197, 350));
    CallText c;
    long v[12];
    int n = -1;
    std::sscanf(text.c_str(), "%d,%d,%ld.%ld,%ld.%ld,%ld.%ld,%ld.%ld,%ld.%ld,%ld.%ld,%n", &c.level, &c.depth_max,
                &v[0], &v[1], &v[2], &v[3], &v[4], &v[5], &v[6], &v[7], &v[8], &v[9], &v[10], &v[11], &n);
    if (n < 0) return c;
    int64_t* out[] = {&c.elapsed, &c.own, &c.called, &c.dbio, &c.start, &c.end};
    for (int i = 0; i < 6; ++i) *out[i] = static_cast<int64_t>(v[2 * i]) * 1000000 + v[2 * i + 1];
    c.rest = text.substr(static_cast<size_t>(n));
    c.rest.erase(c.rest.find_last_not_of(' ') + 1);
    return c;
}

}  // namespace varnix::test
