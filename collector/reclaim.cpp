// Traced processes register threads while the agent reclaims: chains, stacks
// and used_cnt change only under the table semaphore (semaphore
// VARNIX_PTRC_SEM_LOCK of the set), and a registration pops its entry,
// raises the entry's owner semaphore, fills and links it and pushes it onto
// the used stack all under that one hold; a release marks the entry released
// and lowers the owner semaphore under it too.  So what a batch sees under
// the semaphore is exact: an entry on neither stack is one that a process
// dropped between pop and push, and an owner value of 0 on a registered entry
// means its holder has ended.
//
// Candidates are found without the semaphore: the used stack (a registration
// only appends to it) and each listed entry's ptrc_state are read, then every
// owner value at once; reading the owners last means that an entry seen
// registered has had its token raised by then.  Nothing found there is
// trusted: each batch reads the stacks and the owners again under the
// semaphore and trusts no link it has not checked.  Entries of live threads
// are written by their own thread without the semaphore; of those only
// ptrc_state is read here.
#include "collector/reclaim.h"

#include <sys/ipc.h>
#include <sys/sem.h>

#include <algorithm>
#include <cstring>
#include <utility>

#include "context/ptrc_hash_stk.h"
#include "core/clock.h"
#include "core/ipc.h"

namespace varnix::agent {
namespace {

constexpr int32_t kChainEnd = -1;
constexpr size_t kBatchMax = 256;         // entries looked at under one hold
constexpr int64_t kHoldBudgetUs = 2'000;  // and no more once this has passed
constexpr int kSemWaitMs = 50;

bool is_entry_no(int64_t n) { return n >= 0 && n < VARNIX_TBL_ENTRIES; }

template <typename T>
T load(const T& v) {
    return __atomic_load_n(&v, __ATOMIC_ACQUIRE);
}

union SemArg {
    int val;
    semid_ds* buf;
    unsigned short* array;
};

// Every value of the set, in one call.  Empty when the set has no owner
// semaphores (made by an older collector) or cannot be read: every holder
// then counts as alive.
class Owners {
public:
    explicit Owners(int semid) : semid_(semid) {
        semid_ds ds{};
        SemArg arg{};
        arg.buf = &ds;
        if (semctl(semid_, 0, IPC_STAT, arg) == 0 && ds.sem_nsems >= VARNIX_PTRC_SEM_CNT)
            values_.resize(ds.sem_nsems);
    }
    void read() {
        SemArg arg{};
        arg.array = values_.data();
        if (!values_.empty() && semctl(semid_, 0, GETALL, arg) < 0) values_.clear();
    }
    bool gone(uint32_t n) const { return !values_.empty() && values_[VARNIX_PTRC_SEM_OWNER(n)] == 0; }
    bool known() const { return !values_.empty(); }

private:
    int semid_;
    std::vector<unsigned short> values_;
};

struct Candidates {
    std::vector<uint32_t> listed;  // on the used stack: released, or the holder gone
    std::vector<uint32_t> lost;    // on neither stack, the holder gone
};

Candidates find_candidates(const PTRC_HASH_TBL& tbl, Owners& owners) {
    Candidates c;
    std::vector<bool> stacked(VARNIX_TBL_ENTRIES);
    std::vector<uint32_t> registered;
    const uint32_t used = std::min<uint32_t>(load(tbl.used_stk.cnt), VARNIX_TBL_ENTRIES);
    for (uint32_t i = 0; i < used; ++i) {
        const uint32_t n = load(tbl.used_stk.idx[i]);
        if (!is_entry_no(n)) continue;
        stacked[n] = true;
        const uint8_t state = load(tbl.entry[n].ptrc_state);
        if (state == VARNIX_PTRC_RELEASED)
            c.listed.push_back(n);
        else if (state == VARNIX_PTRC_REGISTERED || state == VARNIX_PTRC_RELEASE_ASKED)
            registered.push_back(n);
    }
    const uint32_t free = std::min<uint32_t>(load(tbl.free_stk.cnt), VARNIX_TBL_ENTRIES);
    for (uint32_t i = 0; i < free; ++i)
        if (const uint32_t n = load(tbl.free_stk.idx[i]); is_entry_no(n)) stacked[n] = true;
    owners.read();
    for (uint32_t n : registered)
        if (owners.gone(n)) c.listed.push_back(n);
    for (uint32_t n = 0; n < VARNIX_TBL_ENTRIES; ++n)
        if (!stacked[n] && owners.gone(n)) c.lost.push_back(n);
    return c;
}

// Where each entry stands on the stacks, read under the semaphore.
class StackIndex {
public:
    // False when the used stack counts more entries than the table has.
    bool read(const PTRC_HASH_TBL& tbl) {
        const HASH_IDX_STK& used = tbl.used_stk;
        if (used.cnt > VARNIX_TBL_ENTRIES) return false;
        std::fill(pos_.begin(), pos_.end(), kNowhere);
        std::fill(twice_.begin(), twice_.end(), false);
        for (uint32_t i = 0; i < used.cnt; ++i) {
            const uint32_t n = used.idx[i];
            if (!is_entry_no(n)) continue;
            if (pos_[n] != kNowhere) twice_[n] = true;
            pos_[n] = static_cast<int32_t>(i);
        }
        free_read_ = false;
        return true;
    }
    bool used(uint32_t n) const { return pos_[n] != kNowhere; }
    bool twice(uint32_t n) const { return twice_[n]; }
    bool free(const PTRC_HASH_TBL& tbl, uint32_t n) {
        if (!free_read_) {
            std::fill(free_.begin(), free_.end(), false);
            for (uint32_t i = 0; i < std::min<uint32_t>(tbl.free_stk.cnt, VARNIX_TBL_ENTRIES); ++i)
                if (is_entry_no(tbl.free_stk.idx[i])) free_[tbl.free_stk.idx[i]] = true;
            free_read_ = true;
        }
        return free_[n];
    }
    // Takes n off the used stack: the top entry moves into its place.
    void take_off_used(HASH_IDX_STK& used, uint32_t n) {
        const uint32_t at = static_cast<uint32_t>(std::exchange(pos_[n], kNowhere));
        const uint32_t top = used.idx[--used.cnt];
        if (top != n) {
            used.idx[at] = top;
            pos_[top] = static_cast<int32_t>(at);
        }
    }
    void pushed_free(uint32_t n) { free_[n] = true; }

private:
    static constexpr int32_t kNowhere = -1;
    std::vector<int32_t> pos_ = std::vector<int32_t>(VARNIX_TBL_ENTRIES, kNowhere);
    std::vector<bool> twice_ = std::vector<bool>(VARNIX_TBL_ENTRIES);
    std::vector<bool> free_ = std::vector<bool>(VARNIX_TBL_ENTRIES);
    bool free_read_ = false;
};

enum class Chain { on, off, broken };

// Walks bucket b's chain to entry n; `pred` is the entry before it.
Chain find_on_chain(const PTRC_HASH_TBL& tbl, uint32_t b, uint32_t n, int32_t& pred) {
    pred = kChainEnd;
    int32_t at = tbl.hash_idx[b];
    for (int steps = 0; at != static_cast<int32_t>(n); ++steps) {
        if (at == kChainEnd) return Chain::off;
        if (!is_entry_no(at) || steps == VARNIX_TBL_ENTRIES) return Chain::broken;
        pred = at;
        at = tbl.entry[at].next;
    }
    return Chain::on;
}

// Where entry n sits on its bucket's chain.
struct Links {
    bool on_chain = false;
    int32_t pred = kChainEnd;  // the entry before it
};

// Entry n's place on its chain; the reason when it is not there (unless it
// may be missing: an entry dropped before it was linked) or its own links are
// not sound.
const char* check_links(const PTRC_HASH_TBL& tbl, uint32_t n, bool may_be_off, Links& links) {
    const PTRC_HASH& e = tbl.entry[n];
    // Linking sets the entry's number and bucket first.
    if (e.pidx != n) return may_be_off ? nullptr : "its pidx is not its number";
    if (e.hidx >= VARNIX_HASH_BUCKETS) return may_be_off ? nullptr : "its bucket is out of range";
    switch (find_on_chain(tbl, e.hidx, n, links.pred)) {
        case Chain::on: break;
        case Chain::off: return may_be_off ? nullptr : "it is not on its bucket's chain";
        case Chain::broken: return "its bucket's chain is broken";
    }
    if (e.next != kChainEnd && !is_entry_no(e.next)) return "its next link is out of range";
    links.on_chain = true;
    return nullptr;
}

void unlink(PTRC_HASH_TBL& tbl, uint32_t n, const Links& links) {
    const PTRC_HASH& e = tbl.entry[n];
    if (links.pred == kChainEnd)
        tbl.hash_idx[e.hidx] = e.next;
    else
        tbl.entry[links.pred].next = e.next;
    if (e.next != kChainEnd) tbl.entry[e.next].prev = links.pred;
}

// Registration rewrites everything past the links (get_ptrc_hash's
// init_entry) and relinks the entry, so only what tells a taken entry from a
// free one is reset here.
void mark_free(PTRC_HASH& e) {
    std::memset(e.key_pid, 0, sizeof e.key_pid);
    std::memset(e.key_tid, 0, sizeof e.key_tid);
    std::memset(e.key_idx, 0, sizeof e.key_idx);
    e.pid = 0;
    e.tid = 0;
    e.reg_flag = 0;
    e.prev = kChainEnd;
    e.next = kChainEnd;
    __atomic_store_n(&e.ptrc_state, uint8_t{0}, __ATOMIC_RELEASE);
}

// One batch, under the semaphore: decides each entry afresh and returns those
// that are still to be returned.
class Batch {
public:
    Batch(PTRC_HASH_TBL& tbl, Owners& owners, StackIndex& stacks, Reclaimed& r)
        : tbl_(tbl), owners_(owners), stacks_(stacks), r_(r) {}

    void listed(uint32_t n) {
        if (!stacks_.used(n)) return;  // taken off meanwhile: the next pass looks at it as lost
        const uint8_t state = tbl_.entry[n].ptrc_state;
        const bool released = state == VARNIX_PTRC_RELEASED;
        if (!released && !owners_.gone(n)) return;  // its holder lives
        const char* why = state == 0            ? "it is on the used stack but free"
                          : stacks_.twice(n)    ? "it is on the used stack twice"
                                                : nullptr;
        const PTRC_HASH& e = tbl_.entry[n];
        const GoneThread thread{e.pid, e.tid, released};  // before give_back clears them
        if (why) {
            skip(n, why);
        } else if (give_back(n, false)) {
            ++(released ? r_.released : r_.orphaned);
            r_.gone.push_back(thread);
        }
    }

    void lost(uint32_t n) {
        if (stacks_.used(n) || stacks_.free(tbl_, n) || !owners_.gone(n)) return;
        if (give_back(n, true)) ++r_.lost;
    }

private:
    bool give_back(uint32_t n, bool lost) {
        if (tbl_.free_stk.cnt >= VARNIX_TBL_ENTRIES) return skip(n, "the free stack is full");
        Links links;
        if (const char* why = check_links(tbl_, n, lost, links)) return skip(n, why);
        // Off the used stack first: an agent killed from here on leaves an
        // entry on neither stack, which the next pass returns.
        if (!lost) stacks_.take_off_used(tbl_.used_stk, n);
        if (links.on_chain) unlink(tbl_, n, links);
        mark_free(tbl_.entry[n]);
        if (ptrc_hash_push(&tbl_.free_stk, n) < 0) return skip(n, "the free stack refused it");
        stacks_.pushed_free(n);
        tbl_.used_cnt = tbl_.used_stk.cnt;
        return true;
    }
    bool skip(uint32_t n, const char* why) {
        r_.skipped.push_back({n, why});
        return false;
    }

    PTRC_HASH_TBL& tbl_;
    Owners& owners_;
    StackIndex& stacks_;
    Reclaimed& r_;
};

}  // namespace

Reclaimed reclaim_entries(PTRC_HASH_TBL& tbl, int semid) {
    Reclaimed r;
    Owners owners(semid);
    const Candidates c = find_candidates(tbl, owners);
    const size_t total = c.listed.size() + c.lost.size();
    StackIndex stacks;
    for (size_t i = 0; i < total;) {
        if (sem_lock_for(semid, VARNIX_PTRC_SEM_LOCK, kSemUndo, kSemWaitMs) != 0) {
            r.sem_busy = true;
            break;
        }
        const int64_t held_from = monotonic_us();
        ++r.batches;
        owners.read();
        const bool sound = stacks.read(tbl);
        if (!sound) r.skipped.push_back({tbl.used_stk.cnt, "the used stack counts more entries than the table has"});
        Batch batch(tbl, owners, stacks, r);
        for (size_t done = 0; sound && i < total && done < kBatchMax; ++i, ++done) {
            if (done > 0 && monotonic_us() - held_from > kHoldBudgetUs) break;
            if (i < c.listed.size())
                batch.listed(c.listed[i]);
            else
                batch.lost(c.lost[i - c.listed.size()]);
        }
        r.longest_hold_us = std::max(r.longest_hold_us, monotonic_us() - held_from);
        (void)sem_unlock(semid, VARNIX_PTRC_SEM_LOCK, kSemUndo);  // fails only when the set is gone
        if (!sound) break;
    }
    return r;
}

}  // namespace varnix::agent
