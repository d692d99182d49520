// Registration of threads in the collector's process-thread table.
#pragma once

#include "context/mtr_cxt.h"
#include "core/log_printf.h"

namespace varnix {

// The registered entry of the context's pid and thread id in `tbl`, whose
// semaphore set is `semid` (the entry's owner token is taken there); a thread
// without one gets a fresh entry, appended to its bucket's chain.  Null when
// the table is full or not attached, when the context's pid or bucket number
// cannot be keyed, or when a chain is corrupt (logged, and tracing is stopped
// in every process by clearing magic_code).  The caller holds the semaphore
// of `tbl` (PtrcSemGuard names the table it guards).
// With `created`, the line that reports a new entry is left there, to be
// written once the semaphore is released.
PTRC_HASH* get_ptrc_hash(PTRC_HASH_TBL* tbl, int semid, MTR_CXT_VAR* cxt, DeferredLine* created = nullptr);

}  // namespace varnix
