#include "context/svc_hash_stk.h"

#include "context/idx_stk.h"

namespace varnix {

int svc_hash_push(HASH_IDX_STK* stk, uint32_t n) { return idx_stk_push(stk->cnt, stk->idx, n); }

}  // namespace varnix
