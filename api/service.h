// Service entries: start, end and error of a service level, for standard
// and process-tracing services.  All of them write the same record body:
// the common header, two time fields, the depth and a tail of caller columns
// whose layout depends on the kind of service.
#pragma once

#include <sys/time.h>

#include <cstdint>
#include <span>

#include "context/mtr_cxt.h"
#include "record/log_field.h"

namespace varnix {

struct ServiceArgs {
    int32_t tid;
    Text cls_cd, dtl_cd, gid, svc_id, pid_str, date_str, time_str;
    // The caller's columns after the depth field, in body order: 22 telegram
    // columns, or 8 telegram columns and 5 process-tracing parameters.
    std::span<const Text> tail;
};

// Index in the tail of the columns the entries themselves look at.
inline constexpr int kTailChnlTypCd = 2;
inline constexpr int kTailRecvSvcCd = 3;

inline Text tail_at(const ServiceArgs& a, size_t i) { return i < a.tail.size() ? a.tail[i] : Text{}; }

struct FieldPos {
    int offset;
    int width;
};

// What distinguishes the standard entries from the process-tracing ones.
struct ServiceKind {
    const char* start_name;
    char start_api, end_api;
    std::span<const FieldPos> tail;
    int body_len;
    bool quiet_channels;   // ICT/ICC start nested levels without linked notices
    bool channel_class;    // chnl_class from the channel type, fetch sums reset
    bool gid_change_check;
    const char* stale_same_gid_fmt;
    bool stats_with_fetch;  // the statistics notice reports fetches and the DB connection
};
extern const ServiceKind kStandardService;
extern const ServiceKind kProcessTraceService;

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
// TRAN_SET_TIME, used once, else the clock.
void take_service_time(PTRC_HASH& e, timeval& into);

// Keeps the entry's copy of the depth in step for the collector.
void set_service_depth(MTR_CXT_VAR& cxt, int depth);

// A caller's text for a "%.*s" of a diagnostic line: "null" when absent;
// the given length, or for NUL-terminated text its length capped at `cap`.
struct Printable {
    int len;
    const char* p;
};
Printable printable(Text t, int cap);
// The same, never longer than `max`.
Printable printable_max(Text t, int cap, int max);

int service_start(const ServiceKind& kind, const ServiceArgs& a);
int service_end(const ServiceKind& kind, const ServiceArgs& a);
int service_error(const ServiceArgs& a);

}  // namespace varnix
