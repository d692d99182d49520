#include <algorithm>
#include <cstring>

#include "context/ptrc_hash_stk.h"
#include "context/tables.h"
#include "core/gvar.h"
#include "core/log_printf.h"

namespace varnix {

int init_ptrc_hash_tbl(PTRC_HASH_TBL& tbl) {
    log_printf("(I) initializing.. ptrc_hash_tbl.");
    tbl.used_cnt = 0;
    std::fill(std::begin(tbl.hash_idx), std::end(tbl.hash_idx), -1);
    std::memset(tbl.entry, 0, sizeof tbl.entry);
    tbl.free_stk.cnt = 0;
    tbl.used_stk.cnt = 0;
    for (uint32_t n = 0; n < VARNIX_TBL_ENTRIES; ++n) ptrc_hash_push(&tbl.free_stk, n);
    return 0;
}

}  // namespace varnix

extern "C" int init_ptrc_hash_tbl(void) {
    if (!varnix::gvar.ptrc_hash_tbl) return -1;
    return varnix::init_ptrc_hash_tbl(*varnix::gvar.ptrc_hash_tbl);
}
