// Lookup in the collector's service table.
#pragma once

#include "context/mtr_cxt.h"

namespace varnix {

// The entry whose 16-byte `svc_id` equals `svc_id16`, or null: the table is
// empty or not attached, or no match is among the first 10 entries of the
// bucket's chain.  Takes no lock: the collector may be changing the table.
SVC_HASH* get_svc_hash(MTR_CXT_VAR* cxt, const char* svc_id16);

}  // namespace varnix
