// Service error: records that the open service failed; the level stays open.
#include "api/notice.h"
#include "api/service.h"
#include "core/gvar.h"
#include "core/status.h"
#include "record/record.h"

namespace varnix {

int service_error(const ServiceKind& kind, const ServiceArgs& a) {
    MTR_CXT_VAR* cxt = nullptr;
    if (int rc = record_context('9', a.tid, cxt); rc != kOk) return rc;
    const SvcLevel* level = current_svc_level(*cxt);
    if (!level) return VARNIX_RC_SVC_DEPTH;
    if (int rc = trace_validate(*cxt, '9', kind.error_api, cxt->log_body, level->svc_id, sizeof level->svc_id);
        rc != kOk)
        return rc;
    write_service_body(*cxt, kind, a, ServiceRecord{'9', level_gid(*level), nullptr, 0, 0, cxt->service_depth});
    return tran_logb(*cxt, cxt->log_rec);
}

}  // namespace varnix
