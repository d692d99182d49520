// Per-thread trace context and the bucket table that holds the contexts.
#pragma once

#include <pthread.h>
#include <sys/types.h>

#include <cstdint>
#include <ctime>

#include "core/reattach.h"
#include "core/thread_own.h"
#include "varnix_collector.h"

namespace varnix {

inline constexpr int kMtrBuckets = 256;
inline constexpr int kMtrPerBucket = 10;

// Service identity of one nesting level of the thread.
struct SvcLevel {
    char gid[32];
    char sp1;
    char svc_id[16];
    char sp2;
    char evt_cd[12];
    char sp3;
    char spare[11];
};
static_assert(sizeof(SvcLevel) == 74);

// Per-service call statistics of the thread.
struct CallStat {
    uint32_t biz_cnt;
    uint32_t dbio_cnt;
    int64_t biz_elapsed_sum;
    int64_t dbio_elapsed_sum;
    int32_t biz_max_ms;
    int32_t biz_self_max_ms;
    int32_t dbio_max_ms;
    uint32_t max_call_depth;
    uint8_t excess_call_flag;
    char spare[23];
};
static_assert(sizeof(CallStat) == 64);

struct MTR_CXT_VAR {
    int32_t pid;
    uint64_t tid;
    int32_t idx;
    char* log_body;  // body of log_rec (after the length word)
    char* log_body2;
    uint32_t* log_len;
    uint32_t* log_len2;
    SVC_HASH* svc_hash;
    PTRC_HASH* ptrc;
    // The generation of the process-thread table attachment that ptrc lies in
    // (core/reattach.h).  Written under the bucket mutex; an entry of an older
    // generation is never read again.
    uint32_t gen;
    SvcLevel svc_stack[VARNIX_SVC_DEPTH_MAX];
    TRAN_LOG_MSG log_rec;
    TRAN_LOG_MSG log_rec2;
    int32_t log_bit;
    int32_t cxt_init_flag;
    CallStat call_stat;
    int8_t service_depth;
    int32_t in_use;
    std::time_t lasted_access;
    pid_t ktid;  // kernel id of the owning thread when it called for itself; 0 when unknown
    // Changes whenever the slot is given to a thread or freed (__atomic
    // access); a thread's own cached context is valid while it still holds
    // the value it had.  0 while free.
    uint64_t stamp;
    // The GID slice that picked the last record's queue, and its hash.
    char gid_key[32];
    int32_t gid_key_len;
    uint32_t gid_key_hash;
};

struct MtrIdxEntry {
    uint64_t tid;
    MTR_CXT_VAR* var;
};

struct MTR_TID_IDX {
    int32_t mtr_tid_idx;
    pthread_mutex_t mtr_lock;
    int32_t mtr_cnt;
    MtrIdxEntry mtr_idx_list[kMtrPerBucket];
    MTR_CXT_VAR mtr_var[kMtrPerBucket];
    MTR_CXT_VAR* last_var;
};

// The context's process-thread entry, or null when it has none or when it lies
// in a table the collector has replaced since.
inline PTRC_HASH* live_entry(const MTR_CXT_VAR& cxt) { return cxt.gen == tables_gen() ? cxt.ptrc : nullptr; }

// The service level now open on the thread (level n describes depth n), or
// null outside a service.
inline SvcLevel* current_svc_level(MTR_CXT_VAR& cxt) {
    int depth = cxt.service_depth;
    return depth >= 1 && depth <= VARNIX_SVC_DEPTH_MAX ? &cxt.svc_stack[depth - 1] : nullptr;
}

// The innermost open traced call of the entry, or null when none is open.
inline const CALL_LVL* innermost_call(const PTRC_HASH& e) {
    const int lvl = e.trc_lvl;
    return lvl >= 1 && lvl <= VARNIX_CALL_LVL_CNT ? &e.call_lvl[lvl - 1] : nullptr;
}

// The lookup's fast path: the calling thread's own context, when it still
// holds the slot it was found in and its entry lies in the table attached now;
// else null.  Only after tracing was found on.  Its user marks the access
// (touch_context).  `self` is the calling thread's thread_own.
inline MTR_CXT_VAR* own_context_held(const ThreadOwn& self = thread_own) {
    const OwnContext own = self.context;
    if (!own.cxt || __atomic_load_n(&own.cxt->stamp, __ATOMIC_ACQUIRE) != own.stamp ||
        own.cxt->gen != tables_gen())
        return nullptr;
    return own.cxt;
}

// The context's last access is `now` (seconds since the epoch).
inline void touch_context(MTR_CXT_VAR& cxt, std::time_t now) {
    __atomic_store_n(&cxt.lasted_access, now, __ATOMIC_RELAXED);
}

// own_context_held, its access marked now.
inline MTR_CXT_VAR* own_context_now() {
    MTR_CXT_VAR* cxt = own_context_held();
    if (cxt) touch_context(*cxt, std::time(nullptr));
    return cxt;
}

// Finds or creates the context of a thread: 0 with *out set, or 103, 107, 116, 117.
int get_mtr_cxt_var(int32_t tid, MTR_CXT_VAR** out);
// The same, for entries that work on the thread's process-thread entry: 116
// when the context has lost it.
int context_with_entry(int32_t tid, MTR_CXT_VAR** out);
// A negative id means the calling thread; any other id is itself the thread id.
uint64_t get_tid(int32_t tid);
MTR_CXT_VAR* get_empty_mtr_cxt_var(MTR_CXT_VAR (&pool)[kMtrPerBucket]);
// The thread an entry works for: its id, and the kernel id of the calling
// thread when it called for itself (0 for ids a caller gave).
struct ThreadKey {
    uint64_t tid;
    pid_t ktid;
};
// Reclaims dead or released contexts of a bucket, and a context that another
// kernel thread left under the caller's handle; the caller holds the bucket
// mutex and the process-thread table semaphore.
void check_mtr_cxt_var(MTR_TID_IDX& bucket, const ThreadKey& caller = {0, 0});
// A forked child's thread must ask the kernel for its id again.
void forget_own_ktid();
int isalive(const MTR_CXT_VAR& cxt);
int comp_chk_tid(const MtrIdxEntry& a, const MtrIdxEntry& b);
// Bucket of a thread id a caller gives: its lowest byte, or the second-lowest
// when that is 0.
constexpr int bucket_of(uint64_t tid) {
    return (tid & 0xFF) ? static_cast<int>(tid & 0xFF) : static_cast<int>((tid >> 8) & 0xFF);
}
static_assert(bucket_of(0x1200) == 18 && bucket_of(0x3400) == 52 && bucket_of(0x1201) == 1 && bucket_of(0) == 0);
// Bucket of the calling thread's own handle.  Handles are addresses of
// thread descriptors, which sit at one offset of page-aligned stacks: their
// low twelve bits are the same in every thread but the main one, and the
// rule above would put all threads of a process in one bucket.  The bits
// above the page offset, mixed (Fibonacci hashing), spread them evenly.
constexpr int handle_bucket_of(uint64_t handle) {
    return static_cast<int>(((handle >> 12) * 0x9E3779B97F4A7C15ull) >> 56);
}

}  // namespace varnix
