// Per-thread trace context and the bucket table that holds the contexts.
#pragma once

#include <pthread.h>

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
    char spare[23];
};
static_assert(sizeof(CallStat) == 64);

struct MTR_CXT_VAR {
    int32_t pid;
    uint64_t tid;
    int32_t idx;
    char* log_body[5];  // views of the primary body for the API families
    char* log_body2;
    uint32_t* log_len;
    uint32_t* log_len2;
    SVC_HASH* svc_hash;
    PTRC_HASH* ptrc;
    SvcLevel svc_stack[VARNIX_SVC_DEPTH_MAX];
    TRAN_LOG_MSG log_rec;
    TRAN_LOG_MSG log_rec2;
    int32_t log_bit;
    int32_t cxt_init_flag;
    CallStat call_stat;
    int8_t service_depth;
    int32_t in_use;
    std::time_t lasted_access;
    bool tid_is_handle;  // tid came from pthread_self() of this process
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

}  // namespace varnix
