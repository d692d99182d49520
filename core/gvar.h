// The process block: everything the library knows about its process, the
// attachments to the collector's IPC objects and the thread-context table.
#pragma once

#include <atomic>
#include <cstdint>
#include <cstddef>
#include <span>
#include <type_traits>

#include "core/cxt_table.h"
#include "core/dbio_signature.h"
#include "core/record_class.h"
#include "core/status.h"
#include "varnix_collector.h"

namespace varnix {

struct Gvar {
    // Read by every thread without a lock; never wiped, only stored.
    std::atomic<int32_t> init_mark;  // 1111 ready, 2222 failed, 0 down
    std::atomic<int32_t> svctimeout_mark;

    // Everything from here on is wiped by TRAN_INIT when due.
    // Fields of the attached TRAN_LOGF_QUE_INFO block.
    int32_t* qcnt;
    uint32_t* que_mask;
    uint32_t* magic_code;
    uint8_t* log_flag_set;
    int8_t* fst_err_rc_set;
    int32_t* call_trc_depth;
    int64_t* call_trc_limit;
    int64_t* dbio_trc_limit;
    int64_t* sql_trc_limit;
    char* tong_log_flag;
    uint32_t* msgq_fail_cnt;
    uint8_t* svc_filtering;

    int32_t svc_hash_shmid;
    int32_t svc_hash_semid;
    int32_t ptrc_hash_shmid;
    int32_t ptrc_hash_semid;
    TRAN_LOGF_QUE_INFO* que_info;
    int32_t msgq_id[VARNIX_MAX_QUE_CNT];
    int32_t que_info_shmid;
    SVC_HASH_TBL* svc_hash_tbl;
    PTRC_HASH_TBL* ptrc_hash_tbl;

    char host_name[65];
    char log_interface[3];
    char tr_section[2];
    char proc_nm[31];
    char cont_nm[31];
    int32_t pid;
    char db_user[11];
    char db_sid[11];
    char dbio_func_nm[11];
    int32_t dbio_func_no;
    DbioSignature dbio_signature;  // of dbio_func_no and dbio_func_nm
    MTR_TID_IDX mtr_tid_idx[kMtrBuckets];
    int32_t idle_thread_release[2];
    int32_t infinite_loop_base_cnt;
    int32_t default_timeout_sec;

    // The collector may remove and re-create its queues while the process
    // runs; a send that finds its queue gone looks the key up again.
    int32_t msgq_key_base;  // key_t of queue 0; queue i has key msgq_key_base + i
    int32_t msgq_cnt;     // queues attached by tran_init; no others are looked up
    int64_t msgq_lookup_due_ms[VARNIX_MAX_QUE_CNT];  // monotonic; one look-up per queue until then
};

static_assert(std::is_standard_layout_v<Gvar>);
inline constexpr size_t kGvarWipeFrom = offsetof(Gvar, qcnt);

// The library's data are declared hidden, as they are defined: it then reaches
// them directly rather than through the global offset table.
[[gnu::visibility("hidden")]] extern Gvar gvar;
[[gnu::visibility("hidden")]] extern int32_t write_qidx_idx_gid_rng_pos;
[[gnu::visibility("hidden")]] extern int32_t write_qidx_idx_gid_rng_siz;

// Reads a field of shared memory that another process may be writing.
template <typename T>
T shm_load(const T* field) {
    return __atomic_load_n(field, __ATOMIC_RELAXED);
}

// Environment, configuration, log and attachments; the deferred queue is the
// start's (start/start_stop.cpp).  0 or a status.
int tran_init();
// TRAN_INIT has made the library ready and no stop has begun.  Sequentially
// consistent: read after the entry gate counted the caller.
inline bool library_ready() { return gvar.init_mark.load() == kInitMarkReady; }
// check_gvar once the library is ready: the collector's control block, for
// records of the class `bit` (0: no class switch); `flags` gets the class
// switches as read when a class is given.  The fields are read through the
// block's one pointer rather than their own: one load fewer each, on every
// entry.  The block's id is not looked at: the library is ready only once
// tran_init attached the block, and a re-attachment stores only an id it
// attached, so it is never negative here.
inline int check_collector_class(uint8_t bit, uint8_t& flags) {
    const TRAN_LOGF_QUE_INFO& q = *gvar.que_info;
    if (shm_load(&q.magic_code) != VARNIX_MAGIC_CODE) [[unlikely]]
        return VARNIX_RC_BAD_MAGIC;
    const int32_t qcnt = shm_load(&q.qcnt);
    if (qcnt < 1 || qcnt > VARNIX_MAX_QUE_CNT) [[unlikely]]
        return VARNIX_RC_NO_QUE_INFO;
    if (gvar.svctimeout_mark.load(std::memory_order_relaxed) != 0) [[unlikely]]
        return VARNIX_RC_SVC_TIMEOUT;
    if (bit == 0) return kOk;
    flags = shm_load(&q.log_flag_set);
    if ((flags & bit) == 0) [[unlikely]]
        return VARNIX_RC_CLASS_OFF;
    return kOk;
}
inline int check_collector(char log_type) {
    uint8_t flags = 0;
    return check_collector_class(record_class_bit(log_type), flags);
}
// 0 when an API producing records of `log_type` may proceed; else 99, 100, 101,
// 103 or 126.  Inline: every entry runs it first.
inline int check_gvar(char log_type) { return library_ready() ? check_collector(log_type) : VARNIX_RC_NOT_INIT; }
void set_proc_nm(char (&proc_nm)[31], char (&cont_nm)[31], int pid);
// The verdict of the return-code table for a finished call level.  Inline:
// every traced call's finish asks.
inline int is_err_rc(CALL_LVL* lvl) {
    if (lvl->start_opt == 0xFFFFFFFFu) {
        lvl->rc = 99;
        return 0;
    }
    if (lvl->rc < 0 && lvl->rc >= -127) return shm_load(&gvar.fst_err_rc_set[-lvl->rc]);
    return 0;
}
// Applies one "code,verdict" rule to a return-code table.
int apply_fst_err_rc(std::span<int8_t, 128> table, const char* rule);

}  // namespace varnix
