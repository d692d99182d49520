// Calls inside a service, for the tests of call tracing and call statistics:
// a service opened by the service start, the two call entries with fixed
// header arguments, and a reader of the call record's time fields.
#pragma once

#include <sys/time.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>

#include "context/mtr_cxt.h"
#include "core/clock.h"
#include "record/record.h"
#include "support/service_calls.h"
#include "support/tracing.h"
#include "varnix.h"

namespace varnix::test {

// Header arguments every test finish passes; the record shows them.
inline constexpr const char* kFinishDate = "20260102";
inline constexpr const char* kFinishTime = "030405123456";

// Opens an outermost service on the calling thread with TRAN_START (after a
// TRAN_END of the service still open there, if any), cls_cd "ST", dtl_cd "1",
// receiving service "RECV-SVC-01" and channel type "WEB" (channel class 'O').
// The start's validation sets the call levels and the limits: from the
// control block, or from the service table when filtering is on and the
// service is listed.  The service records are drained.  0 when the service is
// traced, else the start's status.
inline int open_service(MTR_CXT_VAR& cxt, std::string_view gid, std::string_view svc_id) {
    ServiceCall s;
    s.cls_cd = "ST";
    s.dtl_cd = "1";
    s.gid = cxt.service_depth > 0 ? std::string(cxt.svc_stack[0].gid, 32) : std::string();
    s.svc_id = std::string(svc_id);
    if (cxt.service_depth > 0) call(TRAN_END, s);
    s.gid = std::string(gid);
    s.tail[2] = "WEB";
    s.tail[3] = "RECV-SVC-01";
    const int rc = call(TRAN_START, s);
    TestIpc::get().collector().drain();
    return rc < 99 ? 0 : rc;
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

inline constexpr const char* kCallGid = "CALL-GID-0001";
inline constexpr const char* kCallSvc = "SVC-CALLS";

// A test with tracing started and an outermost service (kCallGid, kCallSvc)
// open on the calling thread; it fails on records nobody looked at.
class InService : public TracedThread {
protected:
    void SetUp() override {
        TracedThread::SetUp();
        if (HasFatalFailure()) return;
        ASSERT_EQ(open_service(*cxt_, kCallGid, kCallSvc), 0);
    }
    void TearDown() override {
        TracedThread::TearDown();
        EXPECT_EQ(TestIpc::get().collector().drain(), 0) << "records nobody looked at";
    }

    // The record a finish says it sent: its result is the service's queue.
    TRAN_LOG_MSG sent(int rc) {
        EXPECT_EQ(rc, queue_of_gid(kCallGid));
        return received(rc);
    }
    CallText finished(const char* func, int32_t rc = 0) { return parse_call_text(sent(call_finish(func, rc))); }
    // The entry's open levels, call depth and call count, as one line.
    std::string levels() const {
        return fmt("lvl %d depth %d calls %d", e_->trc_lvl, e_->call_trc_depth, e_->total_call_cnt);
    }
    const CALL_LVL& level(int i) const { return e_->call_lvl[i]; }
};

}  // namespace varnix::test
