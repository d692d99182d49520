// The thread-context table: 256 buckets of contexts, held by the process
// block (gvar.mtr_tid_idx).  The types live here, below the process block;
// the context layer (context/mtr_cxt.h) finds, makes and frees the contexts.
#pragma once

#include <pthread.h>
#include <sys/types.h>

#include <cstdint>
#include <ctime>

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
    // Where the next millisecond of each maximum begins, in microseconds: a
    // call that stays below compares once.
    int64_t biz_next_us = 1000;
    int64_t biz_self_next_us = 1000;
    int64_t dbio_next_us = 1000;
};
static_assert(sizeof(CallStat) == 72);

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
