// Reclaiming process-thread entries: the library only ever takes entries and
// marks those it let go of as released; the agent returns them, and those of
// processes that are gone, to the free stack.
#pragma once

#include "varnix_collector.h"

namespace varnix::agent {

struct Reclaimed {
    int released = 0;  // entries the library had released
    int orphaned = 0;  // entries of processes that no longer exist
};

// Each reclaimed entry is unlinked from its bucket's chain, taken off the
// used stack, cleared and pushed onto the free stack; used_cnt then equals
// the used stack's count.  The caller holds the table's semaphore.
Reclaimed reclaim_entries(PTRC_HASH_TBL& tbl);

}  // namespace varnix::agent
