#include "context/idx_stk.h"
#include "varnix_collector.h"

extern "C" {

int jcache_hash_push(JCACHE_IDX_STK* stk, uint32_t n) { return varnix::idx_stk_push(stk, n); }

uint32_t jcache_hash_pop(JCACHE_IDX_STK* stk) { return varnix::idx_stk_pop(stk); }

}  // extern "C"
