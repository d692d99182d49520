// Service entries: start, end and error of a service level, for standard
// and process-tracing services, and of the client-handler and web services
// that are always outermost (gateways only pin the depth).  All of them write
// the same record body: the common header, two time fields, the depth and a
// tail of caller columns whose layout depends on the kind of service.
#pragma once

#include <sys/time.h>

#include <cstdint>
#include <cstring>
#include <span>

#include "context/mtr_cxt.h"
#include "core/log_field.h"
#include "record/record.h"

namespace varnix {

struct ServiceArgs {
    int32_t tid;
    Text cls_cd, dtl_cd, gid, svc_id, pid_str, date_str, time_str;
    // The caller's columns after the depth field, in body order: 22 telegram
    // columns, or 8 telegram columns and 5 process-tracing or web fields.
    std::span<const Text> tail;
    // What a start compares with a snapshot's trade code, when it is more
    // than the channel type column: the telegram entries give the telegram's
    // bytes from the channel type on, which may be longer than the column.
    Text snapshot_key{};
};

// ICT and ICC: channels that carry nested levels of other transactions
// (channel class "C").  Reads the first three bytes of `chnl`.
inline bool internal_channel(const char* chnl) {
    return std::strncmp(chnl, "ICT", 3) == 0 || std::strncmp(chnl, "ICC", 3) == 0;
}

// Index in the tail of the columns the entries themselves look at.
inline constexpr int kTailChnlTypCd = 2;
inline constexpr int kTailRecvSvcCd = 3;

inline Text tail_at(const ServiceArgs& a, size_t i) { return i < a.tail.size() ? a.tail[i] : Text{}; }

struct FieldPos {
    int offset;
    int width;
};

// What distinguishes the kinds of service from each other.  The front-end
// kinds keep no nesting, so only the names, API types, body and channel
// class rule of theirs are used.
struct ServiceKind {
    const char* start_name;
    char start_api, end_api, error_api;
    std::span<const FieldPos> tail;
    // Writes the caller's columns into the tail, blanks where none is given.
    void (*write_tail)(char* body, std::span<const Text> cols);
    int body_len;
    bool quiet_channels;   // ICT/ICC start nested levels without linked notices
    bool channel_class;    // chnl_class from the channel type, else always 'O'
    bool gid_change_check;
    const char* stale_same_gid_fmt;
    // The statistics notice reports fetches and the DB connection, so the
    // outermost start resets the fetch sums.
    bool stats_with_fetch;
};
[[gnu::visibility("hidden")]] extern const ServiceKind kStandardService;
[[gnu::visibility("hidden")]] extern const ServiceKind kProcessTraceService;
[[gnu::visibility("hidden")]] extern const ServiceKind kClientHandlerService;
[[gnu::visibility("hidden")]] extern const ServiceKind kWebService;

// Body fields that differ between start, end and error records.
struct ServiceRecord {
    char log_type;
    Text gid;
    // Outermost start or end: the service's own instant is taken into `timed`
    // (after the date field, unless the caller gave the time) and stamped;
    // an end also carries the elapsed time since `since` and `call_us`.
    timeval* timed;
    const timeval* since;
    int64_t call_us;
    int depth;
};

// Writes the whole body into the context's primary record.  The entry's
// times are taken here, so the date is read before the clock as elsewhere.
void write_service_body(MTR_CXT_VAR& cxt, const ServiceKind& kind, const ServiceArgs& a, const ServiceRecord& r);

// The instant of an outermost start or end into `into`: a time preset by
// TRAN_SET_TIME, used once, else now.
void take_service_time(PTRC_HASH& e, timeval& into, Now& now);

// Keeps the entry's copy of the depth in step for the collector.
void set_service_depth(MTR_CXT_VAR& cxt, int depth);

// What the collector learns of a transaction when its outermost service
// starts: state, mark time, main GID, service and receiving service, channel
// class; taken from the body just written.  The call and fetch sums are the
// nesting start's own business.
void mark_outermost_start(const ServiceKind& kind, MTR_CXT_VAR& cxt);
// The same when it ends: state and mark time.
void mark_outermost_end(PTRC_HASH& e);

// A caller's text for a "%.*s" of a diagnostic line: "null" when absent;
// the given length, or for NUL-terminated text its length capped at `cap`.
struct Printable {
    int len;
    const char* p;
};
Printable printable(Text t, int cap);
// The same, never longer than `max`.
Printable printable_max(Text t, int cap, int max);

// What a start compares with the trade code of an armed snapshot: the
// caller's snapshot key, else the channel type column.
inline Text snapshot_key(const ServiceArgs& a) {
    return a.snapshot_key.p ? a.snapshot_key : tail_at(a, kTailChnlTypCd);
}

int service_start(const ServiceKind& kind, const ServiceArgs& a);
int service_end(const ServiceKind& kind, const ServiceArgs& a);
int service_error(const ServiceKind& kind, const ServiceArgs& a);

// A front-end service's start ('1'), end ('2') or error ('9') record, with
// the thread's depth pinned at 1 whatever it was.
int front_end_service(const ServiceKind& kind, char log_type, const ServiceArgs& a);
// A gateway start ('1') or end ('2'): only pins the depth at 1; no record.
int front_end_pin(char log_type, int32_t tid);

}  // namespace varnix
