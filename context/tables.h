// Initializers of the two shared tables, for whoever creates the segments.
#pragma once

#include "varnix_collector.h"

namespace varnix {

int init_ptrc_hash_tbl(PTRC_HASH_TBL& tbl);
int init_svc_hash_tbl(SVC_HASH_TBL& tbl);

}  // namespace varnix
