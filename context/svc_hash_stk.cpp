// Stacks of service-table entry numbers, for the collector side: the library
// itself only pushes while initializing a table.
#include "context/idx_stk.h"
#include "core/log_printf.h"
#include "varnix_collector.h"

extern "C" {

int svc_hash_push(HASH_IDX_STK* stk, uint32_t n) { return varnix::idx_stk_push(stk, n); }

uint32_t svc_hash_pop(HASH_IDX_STK* stk) { return varnix::idx_stk_pop(stk); }

uint32_t svc_hash_popv(HASH_IDX_STK* stk, uint32_t n) {
    // A count beyond the capacity leaves no trustworthy last number to move.
    if (!stk || stk->cnt > VARNIX_TBL_ENTRIES) return varnix::kIdxStkEmpty;
    for (uint32_t i = 0; i < stk->cnt; ++i) {
        if (stk->idx[i] != n) continue;
        uint32_t last = stk->cnt - 1;
        stk->idx[i] = stk->idx[last];
        stk->idx[last] = varnix::kIdxStkEmpty;
        stk->cnt = last;
        return n;
    }
    return varnix::kIdxStkEmpty;
}

int svc_hash_show(HASH_IDX_STK* stk) {
    if (!stk) return -1;
    uint32_t cnt = stk->cnt;
    varnix::log_printf("total : %d\n", static_cast<int>(cnt));
    for (uint32_t i = 0; i < cnt && i < VARNIX_TBL_ENTRIES; ++i)
        varnix::log_printf("[%d] array_idx#%d\n", static_cast<int>(i), static_cast<int>(stk->idx[i]));
    return static_cast<int>(cnt);
}

}  // extern "C"
