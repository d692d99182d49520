// The service table belongs to the collector, which changes it under its own
// semaphore; the library only reads it, without that semaphore, so every entry
// number read from it is range-checked before use and the walk is bounded.
#include "context/get_svc_hash.h"

#include <algorithm>
#include <cstring>

#include "context/hash.h"
#include "context/tables.h"
#include "core/gvar.h"

namespace varnix {
namespace {

constexpr int kSvcIdLen = 16;
constexpr int kMaxCompares = 10;
constexpr uint32_t kBucketMask = VARNIX_HASH_BUCKETS - 1;

}  // namespace

int init_svc_hash_tbl(SVC_HASH_TBL& tbl) {
    tbl.svc_cnt = 0;
    std::fill(std::begin(tbl.svc_hash_idx), std::end(tbl.svc_hash_idx), -1);
    std::memset(tbl.entry, 0, sizeof tbl.entry);
    tbl.svc_free_stk.cnt = 0;
    tbl.svc_used_stk.cnt = 0;
    for (uint32_t n = 0; n < VARNIX_TBL_ENTRIES; ++n) svc_hash_push(&tbl.svc_free_stk, n);
    return 0;
}

// The context is not consulted: the lookup depends on the service id alone.
SVC_HASH* get_svc_hash(MTR_CXT_VAR* /*cxt*/, const char* svc_id16) {
    SVC_HASH_TBL* tbl = gvar.svc_hash_tbl;
    if (!tbl || !svc_id16 || shm_load(&tbl->svc_cnt) == 0) return nullptr;
    int32_t n = shm_load(&tbl->svc_hash_idx[get_hidx(svc_id16, kSvcIdLen, kBucketMask)]);
    for (int compared = 0; compared < kMaxCompares && n >= 0 && n < VARNIX_TBL_ENTRIES; ++compared) {
        SVC_HASH& e = tbl->entry[n];
        if (std::memcmp(e.svc_id, svc_id16, kSvcIdLen) == 0) return &e;
        n = shm_load(&e.next);
    }
    return nullptr;
}

}  // namespace varnix

extern "C" int init_svc_hash_tbl(void) {
    if (!varnix::gvar.svc_hash_tbl) return -1;
    return varnix::init_svc_hash_tbl(*varnix::gvar.svc_hash_tbl);
}
