#include "collector/service_table.h"

#include <algorithm>
#include <cstring>

#include "context/hash.h"

namespace varnix::collector {

SVC_HASH* add_service(SVC_HASH_TBL& tbl, const ServiceListing& listing) {
    if (tbl.svc_free_stk.cnt == 0) return nullptr;
    uint32_t n = svc_hash_pop(&tbl.svc_free_stk);
    if (n >= VARNIX_TBL_ENTRIES) return nullptr;
    SVC_HASH& e = tbl.entry[n];
    std::memset(&e, 0, sizeof e);
    std::memset(e.svc_id, ' ', sizeof e.svc_id);
    std::memcpy(e.svc_id, listing.svc_id.data(), std::min(listing.svc_id.size(), sizeof e.svc_id));
    e.svc_flag_set = listing.flags;
    e.call_trc_depth = listing.call_trc_depth;
    e.call_trc_limit = listing.call_trc_limit;
    e.dbio_trc_limit = listing.dbio_trc_limit;
    e.sql_trc_limit = listing.sql_trc_limit;
    e.pidx = n;
    e.hidx = get_hidx(e.svc_id, sizeof e.svc_id, VARNIX_HASH_BUCKETS - 1);
    e.prev = -1;
    e.next = -1;
    int32_t* link = &tbl.svc_hash_idx[e.hidx];
    while (*link >= 0 && *link < VARNIX_TBL_ENTRIES) {
        e.prev = *link;
        link = &tbl.entry[*link].next;
    }
    // Processes read the chain without the semaphore: the entry is complete
    // before it becomes reachable.
    __atomic_store_n(link, static_cast<int32_t>(n), __ATOMIC_RELEASE);
    svc_hash_push(&tbl.svc_used_stk, n);
    ++tbl.svc_cnt;
    return &e;
}

}  // namespace varnix::collector
