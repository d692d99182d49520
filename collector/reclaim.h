// Reclaiming process-thread entries: the library only ever takes entries and
// marks those it let go of as released; the agent returns them, and those
// whose holder is gone, to the free stack.
//
// A holder is a process that keeps the entry's owner semaphore raised (see
// the table semaphore set in varnix_collector.h): an owner value of 0 on a
// registered or marked entry means its process has ended, whatever the clock
// did meanwhile and whichever pid namespace it ran in.
//
// The table semaphore, which every traced process takes to register a
// thread, is held only for short batches: candidates are found without it
// (the stacks and states are read, then every owner value with one GETALL),
// and each batch rechecks its entries under it and returns them.
#pragma once

#include <cstdint>
#include <vector>

#include "varnix_collector.h"

namespace varnix::agent {

struct Skipped {
    uint32_t n;
    const char* why;
};

// The thread of an entry returned: released by its library, else its process
// has ended.
struct GoneThread {
    int32_t pid;
    uint64_t tid;
    bool released;
};

struct Reclaimed {
    int released = 0;              // released by the library
    int orphaned = 0;              // registered or marked, their holder gone
    int lost = 0;                  // on neither stack, their holder gone: dropped between pop and push
    std::vector<Skipped> skipped;  // entries left alone: the table contradicts itself
    std::vector<GoneThread> gone;  // the threads of the released and orphaned entries
    int batches = 0;               // times the semaphore was taken
    int64_t longest_hold_us = 0;   // the longest of those holds
    bool sem_busy = false;         // a batch did not get the semaphore in time: the rest waits for the next pass
};

// One pass over the table.  An entry returned is unlinked from its bucket's
// chain, taken off the used stack, marked free and pushed onto the free
// stack; used_cnt then equals the used stack's count.  An entry whose links,
// number or stack listing are inconsistent is left as it is.  Without owner
// semaphores in the set, only released entries are returned.
Reclaimed reclaim_entries(PTRC_HASH_TBL& tbl, int semid);

}  // namespace varnix::agent
