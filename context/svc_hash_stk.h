#pragma once

#include "varnix_collector.h"

namespace varnix {

int svc_hash_push(HASH_IDX_STK* stk, uint32_t n);

}  // namespace varnix
