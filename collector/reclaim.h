// Reclaiming process-thread entries: the library only ever takes entries and
// marks those it let go of as released; the agent returns them, and those of
// processes that are gone, to the free stack.
//
// Two steps, so that the table's semaphore, which every traced process takes
// to register a thread, is held only for cheap work: find_reclaimable looks
// at processes (kill, /proc) without it, reclaim_entries rechecks what it
// found and returns the entries under it.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "varnix_collector.h"

namespace varnix::agent {

struct Candidate {
    uint32_t n;        // entry number
    int32_t pid;       // the entry's pid when it was found
    bool released;     // released by the library, else its process is gone
};

// Entries released by the library, and entries whose process is gone or
// whose pid now belongs to a process started after the entry was last marked
// (a reused pid).  Reads the used stack without the semaphore.
std::vector<Candidate> find_reclaimable(const PTRC_HASH_TBL& tbl);

struct Skipped {
    uint32_t n;
    const char* why;
};

struct Reclaimed {
    int released = 0;              // entries the library had released
    int orphaned = 0;              // entries of processes that no longer exist
    std::vector<Skipped> skipped;  // entries left alone: the table contradicts itself
};

// Each candidate still in the state it was found in is unlinked from its
// bucket's chain, taken off the used stack, marked free and pushed onto the
// free stack; used_cnt then equals the used stack's count.  An entry whose
// links, number or stack listing are inconsistent is left as it is.  The
// caller holds the table's semaphore.
Reclaimed reclaim_entries(PTRC_HASH_TBL& tbl, std::span<const Candidate> candidates);

}  // namespace varnix::agent
