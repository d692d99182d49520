// The process-thread table is shared by every traced process on the host and
// by the collector.  Chains, stacks and used_cnt change only under the
// PTRC_HASH_TBL semaphore, which every caller of get_ptrc_hash holds; an entry
// once handed out is written by its own thread alone.  The process holds the
// entry's owner token (context/ptrc_owner.h) from right after the pop, so an
// entry off the free stack whose token is down belongs to nobody; one whose
// token is up is still held, and a stack that hands it out is corrupt: the
// entry stays with its holder and the registration fails.  Nothing
// read from the table is used as an index before it is range-checked: a
// corrupt table must stop tracing, never crash the host.
#include "context/get_ptrc_hash.h"

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "context/hash.h"
#include "context/ptrc_hash_stk.h"
#include "context/ptrc_owner.h"
#include "context/tables.h"
#include "core/gvar.h"
#include "core/log_printf.h"
#include "core/throttle.h"

namespace varnix {
namespace {

// Key: 8 pid digits, 15 thread-id digits, 5 bucket digits.  Pid and thread id
// select the bucket and identify the entry; the bucket number is only stored.
constexpr int kPidDigits = 8;
constexpr int kTidDigits = 15;
constexpr int kIdxDigits = 5;
constexpr int kKeyIdent = kPidDigits + kTidDigits;
constexpr int kKeyLen = kKeyIdent + kIdxDigits;
constexpr uint64_t kTidModulus = 1'000'000'000'000'000;  // 10^kTidDigits
constexpr uint32_t kBucketMask = VARNIX_HASH_BUCKETS - 1;
constexpr int32_t kChainEnd = -1;

using Key = char[kKeyLen + 1];

// A thread id wider than its 15 digits keeps its low 15 digits (user-space
// thread handles have at most 15); false when the pid does not fit its digits.
bool format_key(const MTR_CXT_VAR& cxt, Key& key) {
    int len = std::snprintf(key, sizeof key, "%0*d%0*lu%0*d", kPidDigits, cxt.pid, kTidDigits,
                            static_cast<unsigned long>(cxt.tid % kTidModulus), kIdxDigits, cxt.idx);
    return len == kKeyLen;
}

bool is_entry_no(int32_t n) { return n >= 0 && n < VARNIX_TBL_ENTRIES; }

// The thread's own entry: its key, and its pid and id, which a context checks
// on every call (an entry written over since is not the thread's any more).
bool is_registered_as(const PTRC_HASH& e, const Key& key, const MTR_CXT_VAR& cxt) {
    return shm_load(&e.pid) == cxt.pid && shm_load(&e.tid) == cxt.tid && std::memcmp(e.key_pid, key, kPidDigits) == 0 &&
           std::memcmp(e.key_tid, key + kPidDigits, kTidDigits) == 0 &&
           shm_load(&e.ptrc_state) == VARNIX_PTRC_REGISTERED;
}

struct ChainPos {
    PTRC_HASH* found = nullptr;
    int32_t last = kChainEnd;  // the tail when nothing was found
    bool corrupt = false;      // a cycle or an entry number out of range
};

ChainPos walk_chain(PTRC_HASH_TBL& tbl, uint32_t bucket, const Key& key, const MTR_CXT_VAR& cxt) {
    ChainPos pos;
    int32_t n = shm_load(&tbl.hash_idx[bucket]);
    for (int visited = 0; n != kChainEnd; ++visited) {
        if (!is_entry_no(n) || visited == VARNIX_TBL_ENTRIES) {
            pos.corrupt = true;
            return pos;
        }
        PTRC_HASH& e = tbl.entry[n];
        if (is_registered_as(e, key, cxt)) {
            pos.found = &e;
            return pos;
        }
        pos.last = n;
        n = shm_load(&e.next);
    }
    return pos;
}

// An entry off the free stack that a thread still holds: this process holds
// its token, or it is registered (or marked, and not yet returned by the
// collector, which clears the state when it returns an entry) and some
// process keeps its owner semaphore raised.  What an earlier owner left in a
// returned entry is no sign of use.
bool is_held(const PTRC_HASH& e, int semid, uint32_t n) {
    const uint8_t state = shm_load(&e.ptrc_state);
    const bool registered = state >= VARNIX_PTRC_REGISTERED && state <= VARNIX_PTRC_RELEASED;
    return holds_owner_token(semid, n) || (registered && owner_raised(semid, n));
}

Throttle live_entry_report{1'000'000};

// The free stack handed out an entry that a thread still holds: it is left
// to its holder, and the stack is not trusted for this registration.
void report_live_entry_popped(const PTRC_HASH& e, uint32_t n, const MTR_CXT_VAR& cxt) {
    if (!live_entry_report.pass()) return;
    log_printf("<!> ptrc_hash free stack corrupt, arr_idx %d is in use (ptrc_state %d, pid %d, tid %lu), refused to "
               "(pid : %d, tid : %lu)",
               static_cast<int>(n), shm_load(&e.ptrc_state), shm_load(&e.pid), static_cast<unsigned long>(shm_load(&e.tid)),
               cxt.pid, static_cast<unsigned long>(cxt.tid));
}

void report_corrupt_chain(const PTRC_HASH_TBL& tbl, const MTR_CXT_VAR& cxt) {
    log_printf("<!> PTRC_HASH_ARR_SIZE overflow (pid : %d, tid : %lu), used : %d(=%d)", cxt.pid,
               static_cast<unsigned long>(cxt.tid), static_cast<int>(tbl.used_cnt),
               static_cast<int>(tbl.used_stk.cnt));
    // The library cannot repair a chain; a cleared magic code stops tracing in
    // every process until the collector has rebuilt the table.
    if (gvar.magic_code) __atomic_store_n(gvar.magic_code, 0u, __ATOMIC_RELAXED);
}

template <size_t N>
void copy_name(char (&dst)[N], const char (&src)[N]) {
    std::memcpy(dst, src, strnlen(src, N - 1));
}

void init_entry(PTRC_HASH& e, const MTR_CXT_VAR& cxt, const Key& key) {
    // pidx, hidx, prev and next are the chain's, set when the entry is linked.
    constexpr size_t kChainFields = offsetof(PTRC_HASH, main_gid);
    std::memset(reinterpret_cast<char*>(&e) + kChainFields, 0, sizeof e - kChainFields);
    std::memcpy(e.key_pid, key, kPidDigits);
    std::memcpy(e.key_tid, key + kPidDigits, kTidDigits);
    std::memcpy(e.key_idx, key + kKeyIdent, kIdxDigits);
    e.pid = cxt.pid;
    e.tid = cxt.tid;
    copy_name(e.proc_nm, gvar.proc_nm);
    copy_name(e.cont_nm, gvar.cont_nm);
    e.svc_state = 'd';
    e.ptrc_state = VARNIX_PTRC_REGISTERED;
    e.svc_mark_time = std::time(nullptr);
    e.reg_flag = '1';
    static_assert(sizeof e.db_user == sizeof gvar.db_user && sizeof e.db_sid == sizeof gvar.db_sid);
    std::memcpy(e.db_user, gvar.db_user, sizeof e.db_user);
    std::memcpy(e.db_sid, gvar.db_sid, sizeof e.db_sid);
}

// Appends entry n to the end of the bucket's chain.
void link_entry(PTRC_HASH_TBL& tbl, uint32_t n, uint32_t bucket, int32_t last) {
    PTRC_HASH& e = tbl.entry[n];
    e.pidx = n;
    e.hidx = bucket;
    e.next = kChainEnd;
    e.prev = last;
    if (last == kChainEnd)
        tbl.hash_idx[bucket] = static_cast<int32_t>(n);
    else
        tbl.entry[last].next = static_cast<int32_t>(n);
}

}  // namespace

PTRC_HASH* get_ptrc_hash(PTRC_HASH_TBL* tbl, int semid, MTR_CXT_VAR* cxt, DeferredLine* created) {
    Key key;
    if (!tbl || !cxt || cxt->idx < 0 || cxt->idx >= kMtrBuckets || !format_key(*cxt, key)) return nullptr;
    uint32_t bucket = get_hidx(key, kKeyIdent, kBucketMask);
    ChainPos pos = walk_chain(*tbl, bucket, key, *cxt);
    if (pos.found) {
        // Its own entry from before, normally with the token still held.
        const auto n = static_cast<uint32_t>(pos.found - tbl->entry);
        return take_owner_token(semid, n) ? pos.found : nullptr;
    }
    if (pos.corrupt) {
        report_corrupt_chain(*tbl, *cxt);
        return nullptr;
    }
    uint32_t n = ptrc_hash_pop(&tbl->free_stk);
    if (n >= VARNIX_TBL_ENTRIES) return nullptr;  // empty, or a number that cannot be an entry: full
    if (is_held(tbl->entry[n], semid, n)) {
        report_live_entry_popped(tbl->entry[n], n, *cxt);
        return nullptr;
    }
    if (!take_owner_token(semid, n)) {
        ptrc_hash_push(&tbl->free_stk, n);  // where it was: the pop left room
        return nullptr;
    }
    init_entry(tbl->entry[n], *cxt, key);
    link_entry(*tbl, n, bucket, pos.last);
    // used_stk is the collector's list of registrations; were it full, its
    // bookkeeping would already be off, and the entry is sound regardless.
    ptrc_hash_push(&tbl->used_stk, n);
    ++tbl->used_cnt;
    static constexpr const char* kCreated =
        "(I) ptrc_hash pid-tid created.(pid : %d, tid : %lu, mtr_tid_idx : %d(%d threads), arr_idx : %d), used : %d(=%d)";
    const auto tid = static_cast<unsigned long>(cxt->tid);
    const int threads = gvar.mtr_tid_idx[cxt->idx].mtr_cnt + 1;
    const int used = static_cast<int>(tbl->used_cnt), stacked = static_cast<int>(tbl->used_stk.cnt);
    if (created)
        created->set_length(std::snprintf(created->buffer(), DeferredLine::size(), kCreated, cxt->pid, tid, cxt->idx,
                                          threads, static_cast<int>(n), used, stacked));
    else
        log_printf(kCreated, cxt->pid, tid, cxt->idx, threads, static_cast<int>(n), used, stacked);
    return &tbl->entry[n];
}

int init_ptrc_hash_tbl(PTRC_HASH_TBL& tbl) {
    log_printf("(I) initializing.. ptrc_hash_tbl.");
    tbl.used_cnt = 0;
    std::fill(std::begin(tbl.hash_idx), std::end(tbl.hash_idx), -1);
    std::memset(tbl.entry, 0, sizeof tbl.entry);
    tbl.free_stk.cnt = 0;
    tbl.used_stk.cnt = 0;
    for (uint32_t n = 0; n < VARNIX_TBL_ENTRIES; ++n) ptrc_hash_push(&tbl.free_stk, n);
    return 0;
}

}  // namespace varnix

extern "C" int init_ptrc_hash_tbl(void) {
    if (!varnix::gvar.ptrc_hash_tbl) return -1;
    return varnix::init_ptrc_hash_tbl(*varnix::gvar.ptrc_hash_tbl);
}
