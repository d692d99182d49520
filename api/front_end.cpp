// Front-end services: client handlers, web front ends and gateways.  They are
// always the outermost service on their thread, so each entry pins the depth
// at 1 and leaves the nesting state of TRAN_START and TRAN_END (stacks,
// log_bit, call sums, time-outs) alone.
#include "api/service.h"
#include "core/gvar.h"
#include "core/log_printf.h"
#include "core/status.h"
#include "record/record.h"

namespace varnix {
namespace {

constexpr int kFrontEndDepth = 1;

// The library state check, then the context with its depth pinned.  Only a
// start names itself in the log when the context cannot be had.
int pinned_context(char log_type, const char* start_name, int32_t tid, MTR_CXT_VAR*& cxt) {
    if (int rc = check_gvar(log_type); rc != kOk) return rc;
    if (int rc = get_mtr_cxt_var(tid, &cxt); rc != kOk) {
        if (start_name) log_printf("<!> %s get_mtr_cxt_var error, return code %d, tid %d", start_name, rc, tid);
        return rc;
    }
    set_service_depth(*cxt, kFrontEndDepth);
    return kOk;
}

char api_of(const ServiceKind& kind, char log_type) {
    return log_type == '1' ? kind.start_api : log_type == '2' ? kind.end_api : kind.error_api;
}

}  // namespace

int front_end_service(const ServiceKind& kind, char log_type, const ServiceArgs& a) {
    const bool start = log_type == '1';
    MTR_CXT_VAR* cp = nullptr;
    if (int rc = pinned_context(log_type, start ? kind.start_name : nullptr, a.tid, cp); rc != kOk) return rc;
    MTR_CXT_VAR& cxt = *cp;
    // Only a start may arm a snapshot.
    if (int rc = trace_validate(cxt, log_type, api_of(kind, log_type), cxt.log_body, a.svc_id.p, a.svc_id.len,
                                start ? snapshot_key(a) : Text{});
        rc != kOk)
        return rc;
    // Never timed: a preset start time is left for the next TRAN_START.
    write_service_body(cxt, kind, a, ServiceRecord{log_type, a.gid, nullptr, nullptr, 0, kFrontEndDepth});
    if (start) mark_outermost_start(kind, cxt);
    const int result = tran_logb(cxt, cxt.log_rec);
    if (log_type == '2') mark_outermost_end(*cxt.ptrc);
    return result;
}

int front_end_pin(char log_type, int32_t tid) {
    MTR_CXT_VAR* cxt = nullptr;
    return pinned_context(log_type, log_type == '1' ? "TRAN_FEP_START" : nullptr, tid, cxt);
}

}  // namespace varnix
