#pragma once

#include "varnix_collector.h"

namespace varnix {

int ptrc_hash_push(HASH_IDX_STK* stk, uint32_t n);
uint32_t ptrc_hash_pop(HASH_IDX_STK* stk);

}  // namespace varnix
