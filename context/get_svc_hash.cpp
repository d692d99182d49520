#include <algorithm>
#include <cstring>

#include "context/svc_hash_stk.h"
#include "context/tables.h"
#include "core/gvar.h"

namespace varnix {

int init_svc_hash_tbl(SVC_HASH_TBL& tbl) {
    tbl.svc_cnt = 0;
    std::fill(std::begin(tbl.svc_hash_idx), std::end(tbl.svc_hash_idx), -1);
    std::memset(tbl.entry, 0, sizeof tbl.entry);
    tbl.svc_free_stk.cnt = 0;
    tbl.svc_used_stk.cnt = 0;
    for (uint32_t n = 0; n < VARNIX_TBL_ENTRIES; ++n) svc_hash_push(&tbl.svc_free_stk, n);
    return 0;
}

}  // namespace varnix

extern "C" int init_svc_hash_tbl(void) {
    if (!varnix::gvar.svc_hash_tbl) return -1;
    return varnix::init_svc_hash_tbl(*varnix::gvar.svc_hash_tbl);
}
