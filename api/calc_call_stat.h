// Per-service call statistics of a thread, and the excessive-call rule.
#pragma once

#include <cstdint>

#include "context/mtr_cxt.h"

namespace varnix {

// Counts one finished traced call of `kind` ('B' DBIO, anything else
// BIZCALL) that lasted `elapsed_us`.  The call's level is still open:
// `trc_lvl` of the process-thread entry numbers it, and the level at that
// index holds the sums of the calls it made.  The first call of a service
// beyond INFINITE_LOOP_BASE_CNT sends event 1300 and raises the limits.
void calc_call_stat(MTR_CXT_VAR& cxt, int64_t elapsed_us, char kind);

}  // namespace varnix
