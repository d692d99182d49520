// TRAN_INIT and TRAN_DONE.
//
// main_lock serializes the two entries; everything they do happens under it,
// including the start-up event.  Other threads learn the state only through
// gvar.init_mark (release on publish, acquire in check_gvar).  Teardown first
// withdraws init_mark and waits 10 ms for calls already past the check, then
// takes each bucket mutex in order and, inside it, the process-thread table
// semaphore once per context: bucket mutex before semaphore, as everywhere.
#include <sys/shm.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "api/notice.h"
#include "context/ptrc_sem.h"
#include "core/gvar.h"
#include "core/log_printf.h"
#include "core/mutex.h"
#include "core/start_stop.h"
#include "core/status.h"
#include "tong/th_job.h"
#include "varnix.h"

extern "C" {
VARNIX_API int32_t gvar_cleared = 0;
}

namespace varnix {
namespace {

pthread_mutex_t main_lock = PTHREAD_MUTEX_INITIALIZER;

constexpr int kQueInfoDataBytes = 740;
constexpr useconds_t kDrainDelayUs = 10'000;

// Wipes the process block and gives every bucket its number and a fresh mutex.
int clear_gvar() {
    gvar.init_mark.store(0, std::memory_order_release);
    gvar.svctimeout_mark.store(0, std::memory_order_relaxed);
    std::memset(reinterpret_cast<char*>(&gvar) + kGvarWipeFrom, 0, sizeof gvar - kGvarWipeFrom);
    std::memcpy(gvar.db_user, init_db_user, 10);
    std::memcpy(gvar.db_sid, init_db_sid, 10);
    for (int b = 0; b < kMtrBuckets; ++b) {
        gvar.mtr_tid_idx[b].mtr_tid_idx = b;
        if (pthread_mutex_init(&gvar.mtr_tid_idx[b].mtr_lock, nullptr) != 0) return VARNIX_RC_MUTEX;
    }
    return kOk;
}

void log_started() {
    const char* lang = std::getenv("LANG");
    log_printf("(I) [SHARED_LIB] TRAN_INIT [%s] complete.. [ MTR_TID_IDX(%d) %d bytes ] [ magic_code 0x%08x,  qcnt %d, "
               "log_flag_set 0x%02x, proc_nm : %s %s(%d), TRAN_LOGF_QUE_INFO %d bytes, TRAN_LOGF_QUE_DATA %d bytes, "
               "GLOBAL_VAR %d bytes, gvar_cleared %d, LANG %s ]",
               kVersionBanner, kMtrBuckets, static_cast<int>(sizeof gvar.mtr_tid_idx), shm_load(gvar.magic_code),
               shm_load(gvar.qcnt), shm_load(gvar.log_flag_set), gvar.proc_nm, gvar.cont_nm, static_cast<int>(getpid()),
               static_cast<int>(sizeof(TRAN_LOGF_QUE_INFO)), kQueInfoDataBytes, static_cast<int>(sizeof gvar),
               gvar_cleared, lang ? lang : "None");
    if (const char* preload = std::getenv("LD_PRELOAD"))
        log_printf("(I) [PRELOAD LIBRARY] hooking library loaded... { LD_PRELOAD = %s }", preload);
}

void announce_process_start() {
    char text[256];
    std::snprintf(text, sizeof text, "거래추적 대상 프로세스(%s)가 기동되었습니다.", gvar.proc_nm);
    Notice n;
    n.code = {"1508", -1};
    n.msg_text = {text, -1};
    (void)tran_event(0, n);  // the start does not depend on the collector taking it
    print_logo();
}

int init_locked() {
    if (gvar_cleared == 0) {
        if (int rc = clear_gvar(); rc != kOk) return rc;
        gvar_cleared = 1;
    } else {
        gvar_cleared = 2;
    }
    if (int rc = tran_init(); rc != kOk) {
        gvar.init_mark.store(kInitMarkFailed, std::memory_order_release);
        return rc;
    }
    gvar.init_mark.store(kInitMarkReady, std::memory_order_release);
    MTR_CXT_VAR* cxt = nullptr;
    if (int rc = get_mtr_cxt_var(0, &cxt); rc != kOk) {
        gvar.init_mark.store(kInitMarkFailed, std::memory_order_release);
        log_printf("<!> TRAN_INIT get_mtr_cxt_var error, return code %d", rc);
        return rc;
    }
    (void)start_th_job();  // a failure is logged there; records still flow without captures
    log_started();
    if (jni_init_flag == 0) announce_process_start();
    log_printf("(I) %s Process (%s / %s) Start OK (ret %d)", jni_init_flag ? "JNI" : "API", gvar.proc_nm, gvar.cont_nm,
               kOk);
    return kOk;
}

const char* yes_no(bool b) { return b ? "true" : "false"; }

// Detaches one context from its process-thread entry.  The entry of a thread
// that went away inside a service is marked 'h' for the collector.
void close_context(int bucket_no, int pos, int count, uint64_t list_tid, MTR_CXT_VAR& cxt) {
    PtrcSemGuard sem;
    PTRC_HASH* e = cxt.ptrc;
    if (!e) {
        log_printf("(I) mtr_tid_idx[%04d - %d of %d] pid(%d/?\?)-tid(%lu/?\?) closing error. get_ptrc is [ null ]",
                   bucket_no, pos + 1, count, cxt.pid, static_cast<unsigned long>(cxt.tid));
        return;
    }
    bool same_pid = e->pid == cxt.pid;
    bool same_tid = e->tid == cxt.tid;
    log_printf("(I) mtr_tid_idx[%04d - %d of %d] pid(%d/%d)-tid(%lu/%lu) closed. get_ptrc[%d] is [ %s - %s ]", bucket_no,
               pos + 1, count, cxt.pid, e->pid, static_cast<unsigned long>(list_tid),
               static_cast<unsigned long>(e->tid), static_cast<int>(e->pidx), yes_no(same_pid), yes_no(same_tid));
    if (sem.owns()) {
        if (e->tid != 0 && same_pid && same_tid) {
            e->saved_svc_state = e->svc_state;
            e->svc_state = 'h';
        }
        e->svc_mark_time = std::time(nullptr);
    }
    cxt.ptrc = nullptr;
}

void close_bucket(MTR_TID_IDX& bucket) {
    {
        MutexGuard guard(bucket.mtr_lock);
        if (!guard.owns()) return;
        const int count = bucket.mtr_cnt;
        for (int i = 0; i < count && i < kMtrPerBucket; ++i)
            close_context(bucket.mtr_tid_idx, i, count, bucket.mtr_idx_list[i].tid, *bucket.mtr_idx_list[i].var);
    }
    if (int rc = pthread_mutex_destroy(&bucket.mtr_lock); rc != 0) log_printf("<!> pthread_mutex_destroy error %d", rc);
}

int detach(void* addr, const char* what) {
    if (!addr) return kOk;
    int rc = shmdt(addr);
    if (rc != 0) log_printf("<!> %s shmdt error %d", what, rc);
    return rc;
}

int detach_blocks() {
    if (int rc = detach(gvar.que_info, "tran_logf_que_info"); rc != 0) return rc;
    if (int rc = detach(gvar.svc_hash_tbl, "svc_hash_tbl"); rc != 0) return rc;
    return detach(gvar.ptrc_hash_tbl, "ptrc_hash_tbl");
}

}  // namespace

int tran_destroy() {
    if (gvar.init_mark.load(std::memory_order_acquire) != kInitMarkReady) return kOk;
    gvar.init_mark.store(0, std::memory_order_release);
    usleep(kDrainDelayUs);
    for (MTR_TID_IDX& bucket : gvar.mtr_tid_idx) close_bucket(bucket);
    if (int rc = detach_blocks(); rc != 0) return rc;
    log_printf("(I) [SHARED_LIB] tran_destroy() [%s] complete.. proc_nm : %s %s(%d)", kVersionBanner, gvar.proc_nm,
               gvar.cont_nm, static_cast<int>(getpid()));
    close_log();
    return kOk;
}

}  // namespace varnix

using namespace varnix;

extern "C" {

int32_t TRAN_INIT(void) {
    MutexGuard guard(main_lock);
    if (!guard.owns()) return VARNIX_RC_MUTEX;  // the start lock failed: a mutex status, nothing started
    return init_locked();
}

int32_t TRAN_DONE(void) {
    MutexGuard guard(main_lock);
    if (!guard.owns()) return -1;
    if (tran_destroy() < 0) {
        log_printf(">> TRAN_DONE() Fail...\n");
        return -1;
    }
    log_printf(">> TRAN_DONE() Success...\n");
    gvar_cleared = 0;
    return kOk;
}

}  // extern "C"
