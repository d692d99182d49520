// Validation of a record against the thread's state, the collector's switches
// and the service table.  Runs on the calling thread's own context and
// process-thread entry, without locks; the shared switches are read relaxed.
#include <cstring>

#include "context/get_svc_hash.h"
#include "core/gvar.h"
#include "core/log_printf.h"
#include "core/status.h"
#include "record/call_validate.h"
#include "record/record.h"

namespace varnix {
namespace {

using namespace validate_detail;

constexpr size_t kSvcIdWidth = 16;
constexpr int8_t kSnapshotDepthMax = 50;
constexpr size_t kSnapshotKeyMax = 15;  // the longest trade code a snapshot is armed with

void reset_call_levels(PTRC_HASH& e) {
    e.last_fin_lvl = 0;
    e.trc_lvl = 0;
    e.call_trc_depth = 0;
}

void start_limits(PTRC_HASH& e, int8_t depth_max, int64_t call, int64_t dbio, int64_t sql) {
    e.call_trc_depth_max = depth_max;
    e.call_trc_limit = call;
    e.dbio_trc_limit = dbio;
    e.sql_trc_limit = sql;
    e.call_elapsed_sum = 0;
    e.total_call_cnt = 0;
    e.err_rc_marked = 0;
    e.svctimeout_flag = 0;
}

void start_with_service(PTRC_HASH& e, const SVC_HASH& s) {
    reset_call_levels(e);
    start_limits(e, static_cast<int8_t>(shm_load(&s.call_trc_depth) & 0xFF), shm_load(&s.call_trc_limit),
                 shm_load(&s.dbio_trc_limit), shm_load(&s.sql_trc_limit));
}

// The key begins with the armed trade code: strncmp over the code's length
// of the key as a C string of at most 15 characters.
bool snapshot_matches(const PTRC_HASH& e, Text key) {
    if (!key.p || e.snapshot_state != 1) return false;
    const size_t n = strnlen(e.snapshot_tr_cd, sizeof e.snapshot_tr_cd);
    const size_t k = shown_len<kSnapshotKeyMax>(key);
    return strnlen(key.p, k) >= n && std::memcmp(key.p, e.snapshot_tr_cd, n) == 0;
}

// Only the outermost start has work beyond a few tests: out of line, as the
// mismatch report is, so that the other record types pay for neither.
[[gnu::noinline]] int validate_start(MTR_CXT_VAR& cxt, Switches sw, const char* body, Text snapshot_key) {
    PTRC_HASH& e = *cxt.ptrc;
    const bool outermost = cxt.service_depth == 1;
    if (sw.filtering != 0 && outermost) cxt.svc_hash = get_svc_hash(&cxt, body + hdr::kSvcId);
    if (sw.filtering != 0 && cxt.svc_hash) {
        if (!(shm_load(&cxt.svc_hash->svc_flag_set) & VARNIX_FLAG_S)) return VARNIX_RC_FILTERED;
        if (outermost) start_with_service(e, *cxt.svc_hash);
        return kOk;
    }
    if (sw.filtering == 2) return VARNIX_RC_FILTERED;
    if (!(sw.flags & VARNIX_FLAG_S) && e.snapshot_state == 0) return VARNIX_RC_CLASS_OFF;
    if (!outermost) return kOk;
    reset_call_levels(e);
    if (snapshot_matches(e, snapshot_key)) {
        start_limits(e, kSnapshotDepthMax, 0, 0, 0);
        e.snapshot_state = 2;
        return kOk;
    }
    start_limits(e, static_cast<int8_t>(shm_load(gvar.call_trc_depth) & 0xFF), shm_load(gvar.call_trc_limit),
                 shm_load(gvar.dbio_trc_limit), shm_load(gvar.sql_trc_limit));
    return kOk;
}

int validate_end(MTR_CXT_VAR& cxt, Switches sw) {
    PTRC_HASH& e = *cxt.ptrc;
    if (int rc = filter(cxt, sw, VARNIX_FLAG_S); rc >= 0) return rc;
    if (!(sw.flags & VARNIX_FLAG_S) && e.snapshot_state != 2) return VARNIX_RC_CLASS_OFF;
    if (cxt.service_depth == 1) {
        e.call_trc_depth_max = 0;
        cxt.svc_hash = nullptr;
        if (e.snapshot_state == 2) e.snapshot_state = 3;
    }
    return kOk;
}

bool error_without_service_check(char api_type) {
    switch (api_type) {
        case kTranClhStartApi:
        case kTranClhEndApi:
        case kTranClhErrorApi:
        case kTranWebStartApi:
        case kTranWebEndApi: return true;
        default: return false;
    }
}

}  // namespace

namespace validate_detail {

int mismatch(const MTR_CXT_VAR& cxt, char log_type) {
    const PTRC_HASH& e = *cxt.ptrc;
    if (log_type == '1' || log_type == '2')
        log_printf("<!> PTRC HASH (pid %d, tid %lu) is not equal to MTR_CXT_VAR (pid %d, tid %lu)", e.pid,
                   static_cast<unsigned long>(e.tid), cxt.pid, static_cast<unsigned long>(cxt.tid));
    return VARNIX_RC_PTRC_MISMATCH;
}

}  // namespace validate_detail

int trace_validate(MTR_CXT_VAR& cxt, char log_type, char api_type, char* body, const char* svc_nm, int svc_len,
                   Text snapshot_key) {
    if (int rc = entry_check(cxt, log_type); rc != kOk) return rc;
    PTRC_HASH& e = *cxt.ptrc;
    if (log_type < '1' || log_type > 'X') return VARNIX_RC_BAD_TYPE;
    const Switches sw = switches();
    auto write_svc_id = [&] { put_field<kSvcIdWidth>(body + hdr::kSvcId, Text{svc_nm, svc_len}); };
    switch (log_type) {
        case '1':
            write_svc_id();
            return validate_start(cxt, sw, body, snapshot_key);
        case '2':
            write_svc_id();
            return validate_end(cxt, sw);
        case '9':
        case 'E':
            if (!error_without_service_check(api_type) && ((cxt.log_bit & 3) == 3 || cxt.log_bit == 0))
                return VARNIX_RC_NO_SERVICE;
            write_svc_id();
            return validate_class(cxt, sw, VARNIX_FLAG_E);
        case 'B':
        case 'C':
            if (!in_service(cxt)) return VARNIX_RC_NO_SERVICE;
            write_svc_id();
            return call_verdict(cxt, sw, log_type);
        case 'I':
            write_svc_id();
            return validate_class(cxt, sw, VARNIX_FLAG_I);
        case 'Q':
            if (!in_service(cxt)) return VARNIX_RC_NO_SERVICE;
            if (e.sql_rec_cnt > 5) return VARNIX_RC_SQL_LIMIT;
            write_svc_id();
            return validate_class(cxt, sw, VARNIX_FLAG_Q);
        case 'V':
            write_svc_id();
            if (int rc = filter(cxt, sw, VARNIX_FLAG_V); rc >= 0) return rc;
            if ((sw.flags & VARNIX_FLAG_V) || e.snapshot_state == 3) return kOk;
            return VARNIX_RC_CLASS_OFF;
        case 'X':
            write_svc_id();
            if (sw.flags & VARNIX_FLAG_X) return kOk;
            return common_tail(e);
        default: return VARNIX_RC_BAD_TYPE;
    }
}

}  // namespace varnix
