// TRAN_INIT and TRAN_DONE.
//
// Library start and stop sit above every layer they start: the process block,
// the contexts, the writer thread and the start-up event.
//
// main_lock (core/reattach.h) serializes the two entries; everything they do
// happens under it, including the start-up event.  Other threads learn the
// state only through gvar.init_mark and pass the entry gate
// (core/entry_gate.h) on the way in.  Teardown withdraws init_mark and waits,
// for a bounded time, until the gate shows no caller inside; only then are
// the contexts closed and the shared blocks detached.  Callers that do not leave in time keep the teardown
// pending: nothing is detached, TRAN_DONE fails, and the next TRAN_DONE or
// TRAN_INIT finishes it once they have left.  Closing takes each bucket mutex
// in order and, inside it, the process-thread table semaphore once per
// context: bucket mutex before semaphore, as everywhere.
//
// A process-thread table that the collector replaced (core/reattach.cpp) is
// detached by the writer thread, under main_lock, once no caller can still
// use it, or by the teardown with the rest.
//
// A forked child has only the thread that called fork: it is left untraced,
// with every lock of the library fresh and nothing of its parent's attached,
// until it calls TRAN_INIT itself.
#include <sys/shm.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "api/notice.h"
#include "context/ptrc_sem.h"
#include "core/clock.h"
#include "core/entry_gate.h"
#include "core/gvar.h"
#include "core/log_printf.h"
#include "core/mutex.h"
#include "core/no_cancel.h"
#include "core/reattach.h"
#include "core/status.h"
#include "start/start_stop.h"
#include "tong/th_job.h"
#include "tong/tong.h"
#include "varnix.h"

extern "C" {
VARNIX_API int32_t gvar_cleared = 0;
}

namespace varnix {
namespace {

bool teardown_pending;  // main_lock: init_mark withdrawn, blocks still attached
int atfork_rc;          // the fork handler's registration, reported by TRAN_INIT

constexpr int kQueInfoDataBytes = 740;
constexpr int kStopBudgetMs = 100;    // TRAN_DONE returns within about this
constexpr int kCloseBudgetMs = 20;    // of which closing the contexts may take this

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

// The process block's part, then the deferred queue, which is emptied only
// when no writer thread runs.
int start_process(bool no_writer) {
    if (int rc = tran_init(); rc != kOk) return rc;
    if (no_writer && reset_tong_que() == 0) {
        log_printf("<!> tran_init fail, create tong log deffered que create fail.");
        return VARNIX_RC_NOT_INIT;
    }
    return kOk;
}

int init_locked() {
    if (atfork_rc != 0) log_printf("<!> pthread_atfork error %d", atfork_rc);
    // One writer consumes the deferred queue at any time: the last run's
    // writer is stopped and joined before the queue is emptied, and before
    // the process block it reads is cleared.  When it does not end in time,
    // neither the queue nor the writer is renewed: tracing goes on without
    // capture, and the next TRAN_INIT tries again.
    const int stop_rc = stop_th_job();
    const bool no_writer = stop_rc == 0;
    if (teardown_pending) {
        if (tran_destroy() != kOk) return VARNIX_RC_NOT_INIT;  // callers of the last run are still inside
        gvar_cleared = 0;
    }
    if (gvar_cleared == 0) {
        if (int rc = clear_gvar(); rc != kOk) return rc;
        gvar_cleared = 1;
    } else {
        gvar_cleared = 2;
    }
    if (int rc = start_process(no_writer); rc != kOk) {
        gvar.init_mark.store(kInitMarkFailed, std::memory_order_release);
        return rc;
    }
    prepare_gate_barrier();
    gvar.init_mark.store(kInitMarkReady, std::memory_order_release);
    MTR_CXT_VAR* cxt = nullptr;
    if (int rc = get_mtr_cxt_var(0, &cxt); rc != kOk) {
        gvar.init_mark.store(kInitMarkFailed, std::memory_order_release);
        log_printf("<!> TRAN_INIT get_mtr_cxt_var error, return code %d", rc);
        return rc;
    }
    if (no_writer)
        (void)start_th_job();  // a failure is logged there; records still flow without captures
    else
        report_stop_failure(stop_rc);
    log_started();
    if (jni_init_flag == 0) announce_process_start();
    log_printf("(I) %s Process (%s / %s) Start OK (ret %d)", jni_init_flag ? "JNI" : "API", gvar.proc_nm, gvar.cont_nm,
               kOk);
    return kOk;
}

const char* yes_no(bool b) { return b ? "true" : "false"; }

// Detaches one context from its process-thread entry.  The entry of a thread
// that went away inside a service is marked 'h' for the collector.
void close_context(int bucket_no, int pos, int count, uint64_t list_tid, MTR_CXT_VAR& cxt, int64_t deadline_us) {
    const int64_t left_us = deadline_us - monotonic_us();
    PtrcSemGuard sem(left_us > 0 ? static_cast<int>(left_us / 1000) : 0);
    PTRC_HASH* e = live_entry(cxt);
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

// No caller is inside any more, so every bucket mutex is free.
void close_bucket(MTR_TID_IDX& bucket, int64_t deadline_us) {
    if (int rc = pthread_mutex_trylock(&bucket.mtr_lock); rc != 0) {
        log_printf("<!> pthread_mutex_lock error %d", rc);
        return;
    }
    const int count = bucket.mtr_cnt;
    for (int i = 0; i < count && i < kMtrPerBucket; ++i)
        close_context(bucket.mtr_tid_idx, i, count, bucket.mtr_idx_list[i].tid, *bucket.mtr_idx_list[i].var,
                      deadline_us);
    (void)pthread_mutex_unlock(&bucket.mtr_lock);  // ours, locked just now
    if (int rc = pthread_mutex_destroy(&bucket.mtr_lock); rc != 0) log_printf("<!> pthread_mutex_destroy error %d", rc);
}

template <typename Block>
int detach(Block*& addr, const char* what) {
    if (!addr) return kOk;
    int rc = shmdt(addr);
    if (rc != 0) {
        log_printf("<!> %s shmdt error %d", what, rc);
        return rc;
    }
    addr = nullptr;
    return kOk;
}

// Also a process-thread table that the collector replaced and that is still
// attached.
int detach_blocks() {
    if (int rc = detach(gvar.que_info, "tran_logf_que_info"); rc != 0) return rc;
    if (int rc = detach(gvar.svc_hash_tbl, "svc_hash_tbl"); rc != 0) return rc;
    const void* const ptrc = gvar.ptrc_hash_tbl;
    if (int rc = detach(gvar.ptrc_hash_tbl, "ptrc_hash_tbl"); rc != 0) return rc;
    drop_table_attachments(ptrc);
    return kOk;
}

// Withdraws init_mark (sequentially consistent: see the entry gate) and waits
// for the callers that saw it.  False when some are still inside.
bool withdraw() {
    if (!teardown_pending) {
        gvar.init_mark.store(0);
        wake_th_job();
        teardown_pending = true;
    }
    if (!wait_callers_out(kStopBudgetMs - kCloseBudgetMs)) {
        log_printf("<!> tran_destroy() callers still inside after %d ms, shared memory kept attached",
                   kStopBudgetMs - kCloseBudgetMs);
        return false;
    }
    teardown_pending = false;
    return true;
}

// The child of a fork: nothing of the parent's is to be touched, and what the
// parent's other threads held is held by nobody here.
void after_fork_in_child() {
    reset_log_after_fork();  // first: what follows may log
    (void)pthread_mutex_init(&main_lock, nullptr);
    gvar.init_mark.store(0, std::memory_order_relaxed);
    gvar.svctimeout_mark.store(0, std::memory_order_relaxed);
    // The child's own mappings; the parent keeps its own.  A failure leaves
    // a mapping nobody reads.
    (void)detach_blocks();
    gvar_cleared = 0;
    teardown_pending = false;
    reset_gate_after_fork();
    forget_own_ktid();
    reset_th_job_after_fork();
    reset_tong_after_fork();
}

__attribute__((constructor)) void register_fork_handler() {
    atfork_rc = pthread_atfork(nullptr, nullptr, after_fork_in_child);
}

}  // namespace

int tran_destroy() {
    if (!teardown_pending && gvar.init_mark.load() != kInitMarkReady) return kOk;
    if (!withdraw()) return -1;
    const int64_t close_deadline = monotonic_us() + kCloseBudgetMs * 1000;
    for (MTR_TID_IDX& bucket : gvar.mtr_tid_idx) close_bucket(bucket, close_deadline);
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
    NoCancel no_cancel;
    MutexGuard guard(main_lock);
    if (!guard.owns()) return VARNIX_RC_MUTEX;  // the start lock failed: a mutex status, nothing started
    return init_locked();
}

int32_t TRAN_DONE(void) {
    NoCancel no_cancel;
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
