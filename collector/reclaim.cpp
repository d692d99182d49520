// Runs under the PTRC_HASH_TBL semaphore, which every traced process takes
// to register a thread: chains, stacks and used_cnt change only under it.
// Entries of live threads are written by their own thread without it; of
// those, only ptrc_state and pid are read here.
#include "collector/reclaim.h"

#include <signal.h>

#include <cerrno>
#include <cstring>

#include "context/ptrc_hash_stk.h"

namespace varnix::agent {
namespace {

constexpr int32_t kChainEnd = -1;

bool is_entry_no(int64_t n) { return n >= 0 && n < VARNIX_TBL_ENTRIES; }

bool process_exists(int32_t pid) { return pid > 0 && (kill(pid, 0) == 0 || errno == EPERM); }

void unlink_entry(PTRC_HASH_TBL& tbl, uint32_t n) {
    const PTRC_HASH& e = tbl.entry[n];
    if (is_entry_no(e.prev))
        tbl.entry[e.prev].next = e.next;
    else if (e.hidx < VARNIX_HASH_BUCKETS && tbl.hash_idx[e.hidx] == static_cast<int32_t>(n))
        tbl.hash_idx[e.hidx] = e.next;
    if (is_entry_no(e.next)) tbl.entry[e.next].prev = e.prev;
}

// Cleared, so that no process can take it for its thread's entry any more.
void clear_entry(PTRC_HASH& e, uint32_t n) {
    std::memset(&e, 0, sizeof e);
    e.pidx = n;
    e.prev = kChainEnd;
    e.next = kChainEnd;
}

}  // namespace

Reclaimed reclaim_entries(PTRC_HASH_TBL& tbl) {
    Reclaimed r;
    HASH_IDX_STK& used = tbl.used_stk;
    if (used.cnt > VARNIX_TBL_ENTRIES) used.cnt = VARNIX_TBL_ENTRIES;
    // From the top down: the number moved into a freed position has been
    // looked at already.
    for (uint32_t i = used.cnt; i-- > 0;) {
        const uint32_t n = used.idx[i];
        if (!is_entry_no(n)) continue;
        const PTRC_HASH& e = tbl.entry[n];
        const uint8_t state = __atomic_load_n(&e.ptrc_state, __ATOMIC_ACQUIRE);
        const bool released = state == VARNIX_PTRC_RELEASED;
        if (!released && process_exists(e.pid)) continue;
        unlink_entry(tbl, n);
        used.idx[i] = used.idx[used.cnt - 1];
        --used.cnt;
        clear_entry(tbl.entry[n], n);
        ptrc_hash_push(&tbl.free_stk, n);
        ++(released ? r.released : r.orphaned);
    }
    if (r.released + r.orphaned > 0) tbl.used_cnt = used.cnt;
    return r;
}

}  // namespace varnix::agent
