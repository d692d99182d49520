#include "context/ptrc_hash_stk.h"

#include "context/idx_stk.h"

namespace varnix {

int ptrc_hash_push(HASH_IDX_STK* stk, uint32_t n) { return idx_stk_push(stk, n); }

uint32_t ptrc_hash_pop(HASH_IDX_STK* stk) { return idx_stk_pop(stk); }

}  // namespace varnix
