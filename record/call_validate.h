// The parts of a record's validation that every call start and finish runs,
// inline so that a call that sends nothing pays no calls for them; the rest
// of the validation is record/trace_validate.cpp.  They read the calling
// thread's own context and entry and the collector's switches (relaxed).
#pragma once

#include "context/mtr_cxt.h"
#include "core/gvar.h"
#include "core/status.h"

namespace varnix {
namespace validate_detail {

struct Switches {
    uint8_t filtering;  // F
    uint8_t flags;      // L
};

inline Switches switches() { return {shm_load(gvar.svc_filtering), shm_load(gvar.log_flag_set)}; }

// FILTER(bit): the service table's verdict when filtering is on; -1 to go on.
inline int filter(const MTR_CXT_VAR& cxt, Switches sw, uint8_t bit) {
    if (sw.filtering == 0) return -1;
    if (cxt.svc_hash) return (shm_load(&cxt.svc_hash->svc_flag_set) & bit) ? kOk : VARNIX_RC_FILTERED;
    return sw.filtering == 2 ? VARNIX_RC_FILTERED : -1;
}

// Records of a class switched off still go while a snapshot runs.
inline int common_tail(const PTRC_HASH& e) { return e.snapshot_state == 2 ? kOk : VARNIX_RC_CLASS_OFF; }

// A service has started and not yet ended: log_bit & 3 below 3 and log_bit
// not 0, which, for a word holding only START_BIT and END_BIT, is 1 or 2.
inline bool in_service(const MTR_CXT_VAR& cxt) {
    return static_cast<uint32_t>(cxt.log_bit) - 1 < 2;
}

// The entry is another thread's: reported for service records; 127.
[[gnu::cold, gnu::noinline]] int mismatch(const MTR_CXT_VAR& cxt, char log_type);

// The context has its process-thread entry, and the entry is still its own.
inline int entry_check(const MTR_CXT_VAR& cxt, char log_type) {
    if (cxt.cxt_init_flag == VARNIX_RC_PTRC_FULL || !cxt.ptrc) return VARNIX_RC_PTRC_FULL;
    const PTRC_HASH& e = *cxt.ptrc;
    if (e.pid != cxt.pid || e.tid != cxt.tid) return mismatch(cxt, log_type);
    return kOk;
}

// The record classes with a plain switch: filter, then the class bit, then
// the snapshot tail.
inline int validate_class(const MTR_CXT_VAR& cxt, Switches sw, uint8_t bit) {
    if (int rc = filter(cxt, sw, bit); rc >= 0) return rc;
    if (sw.flags & bit) return kOk;
    return common_tail(*cxt.ptrc);
}

// A DBIO call is never refused by its switch: it is marked, and its finish
// suppresses its record.
inline int validate_dbio(MTR_CXT_VAR& cxt, Switches sw) {
    PTRC_HASH& e = *cxt.ptrc;
    e.dbio_skip = 0;
    if (sw.filtering != 0) {
        if (cxt.svc_hash) {
            if (!(shm_load(&cxt.svc_hash->svc_flag_set) & VARNIX_FLAG_B)) e.dbio_skip = 'y';
            return kOk;
        }
        if (sw.filtering == 2) return VARNIX_RC_FILTERED;
    }
    if ((sw.flags & VARNIX_FLAG_B) || e.snapshot_state == 2) return kOk;
    e.dbio_skip = 'd';
    return kOk;
}

// A DBIO ('B') or BIZCALL ('C') record inside a service.
inline int call_verdict(MTR_CXT_VAR& cxt, Switches sw, char kind) {
    return kind == 'B' ? validate_dbio(cxt, sw) : validate_class(cxt, sw, VARNIX_FLAG_C);
}

}  // namespace validate_detail

// trace_validate of a call record, 'B' (DBIO) or 'C' (BIZCALL), for the
// call's start and finish: the service id is not written (the finish writes
// it when it sends), and an api type makes no difference to these kinds.
// The collector check has found the kind's class switched on, so only the
// service filter can refuse or mark the call.  `entry_ours`: the caller has
// just found the context's entry naming its thread (own_context_held), which
// is all the entry check would find.
inline int validate_call(MTR_CXT_VAR& cxt, char kind, bool entry_ours) {
    using namespace validate_detail;
    if (!entry_ours)
        if (int rc = entry_check(cxt, kind); rc != kOk) return rc;
    if (!in_service(cxt)) [[unlikely]]
        return VARNIX_RC_NO_SERVICE;
    const uint8_t class_on = kind == 'B' ? VARNIX_FLAG_B : VARNIX_FLAG_C;
    return call_verdict(cxt, {shm_load(&gvar.que_info->svc_filtering), class_on}, kind);
}

}  // namespace varnix
