// Thread-context table.
//
// 256 buckets, each with its own mutex (mtr_lock) guarding the bucket's sorted
// list, its pool of 10 contexts and its cache pointer.  The process-thread
// table semaphore is taken only inside a bucket mutex (registration and
// reclaiming), never the other way round, and never while another bucket's
// mutex is held.  Once found, a context belongs to its thread and is used
// without any lock.
#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <ctime>

#include "context/get_ptrc_hash.h"
#include "context/mtr_cxt.h"
#include "context/ptrc_owner.h"
#include "context/ptrc_sem.h"
#include "core/entry_gate.h"
#include "core/gvar.h"
#include "core/log_field.h"
#include "core/log_printf.h"
#include "core/record_header.h"
#include "core/status.h"
#include "core/throttle.h"

namespace varnix {
namespace {

// Stamps of context slots, unique for the life of the process (they outlive
// the wiping of the process block, so no stamp cached before it matches).
std::atomic<uint64_t> next_stamp{1};


void prepare_record(TRAN_LOG_MSG& rec, char*& body, uint32_t*& len, const char* host, int pid) {
    rec.mtype = 1;
    std::memset(rec.text, ' ', sizeof rec.text);
    len = reinterpret_cast<uint32_t*>(rec.text);
    body = rec.text + sizeof(uint32_t);
    set_log_field(host, -1, body + hdr::kHostNm, 64, 1);
    put_number(body + hdr::kPid, 8, pid);
}

// Thread ids wider than the field keep their low digits, which tell threads apart.
constexpr uint64_t kTidModulus = 1'000'000'000'000'000ULL;

// The thread's tid, idx and pidx fields, written when its context registers.
void write_thread_ids(const MTR_CXT_VAR& cxt, char* body) {
    put_number(body + hdr::kTid, 15, static_cast<int64_t>(cxt.tid % kTidModulus));
    put_number(body + hdr::kIdx, 5, cxt.idx);
    put_number(body + hdr::kPidx, 5, cxt.ptrc ? static_cast<int64_t>(cxt.ptrc->pidx) : 0);
}

// Registers the context in the process-thread table attached now: 0, or 116
// with the context left without an entry.  The token of an entry the context
// lost (`lost`) is given back first.
int register_entry(MTR_CXT_VAR& cxt, const PTRC_HASH* lost = nullptr) {
    DeferredLine created;  // written after the semaphore is released
    PtrcSemGuard sem;
    if (sem.owns()) give_back_owner_token(lost);
    cxt.ptrc = sem.owns() ? get_ptrc_hash(sem.attach().tbl, sem.attach().semid, &cxt, &created) : nullptr;
    if (!cxt.ptrc) {
        cxt.cxt_init_flag = VARNIX_RC_PTRC_FULL;
        return VARNIX_RC_PTRC_FULL;
    }
    cxt.gen = sem.attach().gen;
    cxt.cxt_init_flag = 0;
    return kOk;
}

// Out of any service, as at registration.
void leave_services(MTR_CXT_VAR& cxt) {
    cxt.service_depth = 0;
    cxt.log_bit = 0;
    cxt.svc_hash = nullptr;
}

// Fills the context taken for `tid` and registers it in the process-thread
// table: 0, or 116 with the slot left free.
int create_context(MTR_TID_IDX& bucket, MTR_CXT_VAR& cxt, uint64_t tid, pid_t ktid) {
    cxt.pid = gvar.pid;
    cxt.tid = tid;
    cxt.idx = bucket.mtr_tid_idx;
    cxt.ktid = ktid;
    if (int rc = register_entry(cxt); rc != kOk) return rc;
    cxt.in_use = 1;
    leave_services(cxt);
    cxt.gid_key_len = -1;
    cxt.lasted_access = std::time(nullptr);
    int pid = static_cast<int>(getpid());
    prepare_record(cxt.log_rec, cxt.log_body, cxt.log_len, gvar.host_name, pid);
    prepare_record(cxt.log_rec2, cxt.log_body2, cxt.log_len2, gvar.host_name, pid);
    write_thread_ids(cxt, cxt.log_body);
    write_thread_ids(cxt, cxt.log_body2);
    set_log_field(gvar.cont_nm[0] ? gvar.cont_nm : gvar.proc_nm, -1, cxt.log_body + hdr::kProcNm, 15, 1);
    // Blank service levels: a level read before any service wrote it must
    // not carry NUL bytes or a previous thread's identity into a record.
    std::memset(cxt.svc_stack, ' ', sizeof cxt.svc_stack);
    __atomic_store_n(&cxt.stamp, next_stamp.fetch_add(1, std::memory_order_relaxed), __ATOMIC_RELEASE);
    return kOk;
}

MtrIdxEntry* find_entry(MTR_TID_IDX& bucket, uint64_t tid) {
    MtrIdxEntry* first = bucket.mtr_idx_list;
    MtrIdxEntry* last = first + bucket.mtr_cnt;
    MtrIdxEntry key{tid, nullptr};
    MtrIdxEntry* it =
        std::lower_bound(first, last, key, [](const MtrIdxEntry& a, const MtrIdxEntry& b) { return comp_chk_tid(a, b) < 0; });
    return it != last && it->tid == tid ? it : nullptr;
}

// Adds a context for `tid` at the end of the list and keeps the list sorted.
int add_context(MTR_TID_IDX& bucket, uint64_t tid, pid_t ktid, MTR_CXT_VAR** out) {
    MTR_CXT_VAR* cxt = get_empty_mtr_cxt_var(bucket.mtr_var);
    if (!cxt) return VARNIX_RC_NO_CONTEXT;
    if (int rc = create_context(bucket, *cxt, tid, ktid); rc != kOk) return rc;
    bucket.mtr_idx_list[bucket.mtr_cnt++] = MtrIdxEntry{tid, cxt};
    std::sort(bucket.mtr_idx_list, bucket.mtr_idx_list + bucket.mtr_cnt,
              [](const MtrIdxEntry& a, const MtrIdxEntry& b) { return comp_chk_tid(a, b) < 0; });
    bucket.last_var = cxt;
    *out = cxt;
    return kOk;
}

// The context's entry lies in a process-thread table that the collector has
// replaced since, or no longer carries the thread's pid and id (another
// thread was handed it, or a process wrote over it): the thread registers in
// the table attached now, out of any service, and the token of a lost entry
// of that table goes back, so that the collector can take the entry back.  A
// service it had open is forgotten, since its state lay in the entry, which
// is not read again; its records were cut off with the old queues anyway.  The context keeps its slot, its records and its service
// levels: a call that was inside when it registered again (an end that sends
// an event of its own) finishes as it began.  0, or 116 with the context left
// to register on the thread's next call.
int register_again(MTR_TID_IDX& bucket, MTR_CXT_VAR& cxt) {
    const PTRC_HASH* lost = live_entry(cxt);
    if (cxt.service_depth != 0)
        log_printf("(I) mtr_tid_idx#%d, tid %lu service (depth %d) dropped: %s", bucket.mtr_tid_idx,
                   static_cast<unsigned long>(cxt.tid), cxt.service_depth,
                   lost ? "ptrc_hash entry taken over" : "ptrc_hash_tbl re-created");
    leave_services(cxt);
    if (int rc = register_entry(cxt, lost); rc != kOk) return rc;
    write_thread_ids(cxt, cxt.log_body);
    write_thread_ids(cxt, cxt.log_body2);
    return kOk;
}

Throttle bucket_busy_report{1'000'000};

// The bucket mutex is held only for list work and for one bounded semaphore
// wait, so a waiter gets it soon; the wait is bounded all the same, and a
// time-out, which the status cannot tell from a full bucket, is reported (at
// most once a second).
class BucketLock {
public:
    explicit BucketLock(MTR_TID_IDX& bucket) : m_(bucket.mtr_lock), rc_(pthread_mutex_trylock(&m_)) {
        if (rc_ != EBUSY) return;
        // The wall clock, as pthread_mutex_timedlock takes it (the race
        // detector knows that call, not its monotonic twin): a clock step
        // during the wait lengthens or shortens it by the step.
        timespec ts{};
        (void)clock_gettime(CLOCK_REALTIME, &ts);  // CLOCK_REALTIME is always there
        const int64_t deadline = static_cast<int64_t>(ts.tv_sec) * 1'000'000 + ts.tv_nsec / 1000 + kBucketWaitUs;
        ts = timespec{static_cast<time_t>(deadline / 1'000'000), static_cast<long>(deadline % 1'000'000) * 1000};
        rc_ = pthread_mutex_timedlock(&m_, &ts);
        if (rc_ == ETIMEDOUT && bucket_busy_report.pass())
            log_printf("<!> mtr_tid_idx#%d mutex busy for %d ms, thread context lookup deferred", bucket.mtr_tid_idx,
                       static_cast<int>(kBucketWaitUs / 1000));
    }
    ~BucketLock() {
        if (rc_ == 0) (void)pthread_mutex_unlock(&m_);
    }
    BucketLock(const BucketLock&) = delete;
    BucketLock& operator=(const BucketLock&) = delete;
    // 0, or the status of an entry that could not have the bucket.
    int status() const { return rc_ == 0 ? kOk : rc_ == ETIMEDOUT ? VARNIX_RC_NO_CONTEXT : VARNIX_RC_MUTEX; }

private:
    // A holder may wait for the semaphore twice (more while the collector's
    // objects are being created anew).
    static constexpr int64_t kBucketWaitUs = 2 * kPtrcSemWaitMs * 1000;
    pthread_mutex_t& m_;
    int rc_;
};

// Kernel id of the calling thread, asked once per thread.  A forked child's
// thread inherits the cache but not the id: the fork handler forgets it.
thread_local pid_t own_ktid = 0;

pid_t current_ktid() {
    if (own_ktid == 0) own_ktid = static_cast<pid_t>(syscall(SYS_gettid));
    return own_ktid;
}

// The context was made by another kernel thread that had the same handle: the
// handle was handed on after that thread ended, and its state with it must not.
bool left_by_earlier_thread(const MTR_CXT_VAR& cxt, const ThreadKey& caller) {
    return caller.ktid != 0 && cxt.ktid != 0 && cxt.ktid != caller.ktid && cxt.tid == caller.tid;
}

void free_context(MTR_TID_IDX& bucket, int pos, const char* thread_state) {
    MTR_CXT_VAR& cxt = *bucket.mtr_idx_list[pos].var;
    const bool ours = entry_is_ours(cxt);
    const PTRC_HASH* e = live_entry(cxt);
    log_printf("(I) mtr_tid_idx#%d-%d, tid %lu (thread %s, ptrc %d) resource clear.(%d->%d)", bucket.mtr_tid_idx, pos,
               static_cast<unsigned long>(bucket.mtr_idx_list[pos].tid), thread_state, e ? e->ptrc_state : 0,
               bucket.mtr_cnt, bucket.mtr_cnt - 1);
    if (ours) cxt.ptrc->ptrc_state = VARNIX_PTRC_RELEASED;
    give_back_owner_token(cxt.ptrc);
    __atomic_store_n(&cxt.stamp, 0, __ATOMIC_RELEASE);
    cxt.in_use = 0;
    --bucket.mtr_cnt;
    if (bucket.last_var == &cxt) bucket.last_var = nullptr;
}

// A context made for an id a caller gave (a Java thread id) has no thread
// whose end could be seen, so a full bucket makes room from the one idle
// longest: idle for more than IDLE_THREAD_RELEASE seconds (at least 1) outside
// a service, or for more than DEFAULT_TIMEOUT_SEC as well inside one, where
// the service counts as abandoned.  Its thread, should it call again, gets a
// fresh context.  A call still inside the context when it is taken would have
// to have stalled for that long.  -1 when no context qualifies.
int idle_caller_context(const MTR_TID_IDX& bucket) {
    const std::time_t now = std::time(nullptr);
    const std::time_t idle = std::max(gvar.idle_thread_release[0], 1);
    const std::time_t abandoned = std::max<std::time_t>(idle, gvar.default_timeout_sec);
    int oldest = -1;
    std::time_t oldest_since = 0;
    for (int i = 0; i < bucket.mtr_cnt; ++i) {
        const MtrIdxEntry& entry = bucket.mtr_idx_list[i];
        const MTR_CXT_VAR& cxt = *entry.var;
        if (entry.tid == 0 || cxt.ktid != 0) continue;  // the process context, or a thread that can be tested
        const std::time_t since = now - __atomic_load_n(&cxt.lasted_access, __ATOMIC_RELAXED);
        const bool in_service = __atomic_load_n(&cxt.service_depth, __ATOMIC_RELAXED) != 0;
        if (since > (in_service ? abandoned : idle) && since > oldest_since) {
            oldest = i;
            oldest_since = since;
        }
    }
    return oldest;
}

void free_idle_caller_context(MTR_TID_IDX& bucket) {
    const int pos = idle_caller_context(bucket);
    if (pos < 0) return;
    free_context(bucket, pos, "idle");
    std::copy(bucket.mtr_idx_list + pos + 1, bucket.mtr_idx_list + bucket.mtr_cnt + 1, bucket.mtr_idx_list + pos);
}

// A miss: reclaim what can be reclaimed, then add the thread.
int miss(MTR_TID_IDX& bucket, uint64_t tid, pid_t ktid, MTR_CXT_VAR** out) {
    if (bucket.mtr_cnt > 0) {
        PtrcSemGuard sem;
        if (!sem.owns()) return VARNIX_RC_PTRC_FULL;
        check_mtr_cxt_var(bucket, ThreadKey{tid, ktid});
        if (bucket.mtr_cnt >= kMtrPerBucket) free_idle_caller_context(bucket);
    }
    if (bucket.mtr_cnt >= kMtrPerBucket) return VARNIX_RC_NO_CONTEXT;
    return add_context(bucket, tid, ktid, out);
}

}  // namespace

uint64_t get_tid(int32_t tid) { return tid < 0 ? static_cast<uint64_t>(pthread_self()) : static_cast<uint64_t>(tid); }

MTR_CXT_VAR* get_empty_mtr_cxt_var(MTR_CXT_VAR (&pool)[kMtrPerBucket]) {
    for (MTR_CXT_VAR& cxt : pool)
        if (cxt.in_use == 0) return &cxt;
    return nullptr;
}

int comp_chk_tid(const MtrIdxEntry& a, const MtrIdxEntry& b) { return a.tid < b.tid ? -1 : a.tid > b.tid ? 1 : 0; }

void forget_own_ktid() { own_ktid = 0; }

int isalive(const MTR_CXT_VAR& cxt) {
    // Only a kernel thread id recorded by the thread itself can be tested;
    // ids given by callers (Java thread ids, the process context 0) cannot.
    if (cxt.tid == 0 || cxt.ktid == 0) return 1;
    if (syscall(SYS_tgkill, getpid(), cxt.ktid, 0) == 0 || errno != ESRCH) return 1;
    log_printf("(i) thread killed. tid : %lu", static_cast<unsigned long>(cxt.tid));
    return 0;
}

void check_mtr_cxt_var(MTR_TID_IDX& bucket, const ThreadKey& caller) {
    const int count = bucket.mtr_cnt;
    int j = 0;
    for (int i = 0; i < count; ++i) {
        const MtrIdxEntry entry = bucket.mtr_idx_list[i];
        const MTR_CXT_VAR& cxt = *entry.var;
        const bool process_context = entry.tid == 0 && i == 0 && bucket.mtr_tid_idx == 0;
        const bool alive = process_context || (!left_by_earlier_thread(cxt, caller) && isalive(cxt));
        // A context without an entry, or whose entry now belongs to another
        // thread, has nothing left to keep: it is treated as released.  One
        // whose entry lies in a replaced table goes only with its thread: the
        // thread registers again on its next call.
        const bool replaced = cxt.gen != tables_gen();
        if (process_context ||
            (alive && (replaced || (entry_is_ours(cxt) && cxt.ptrc->ptrc_state != VARNIX_PTRC_RELEASE_ASKED)))) {
            bucket.mtr_idx_list[j++] = entry;
            continue;
        }
        free_context(bucket, i, alive ? "alive" : "killed");
    }
}

namespace {

// Every lookup but a thread's own that finds its cached context: under the
// bucket's mutex.
[[gnu::noinline]] int look_up(int32_t tid_arg, MTR_CXT_VAR** out) {
    const pid_t ktid = current_ktid();
    settle_gate(thread_own, ktid);  // the calling thread's, whichever thread it asks for
    const ThreadKey caller{get_tid(tid_arg), tid_arg < 0 ? ktid : 0};
    MTR_TID_IDX& bucket = gvar.mtr_tid_idx[tid_arg < 0 ? handle_bucket_of(caller.tid) : bucket_of(caller.tid)];
    BucketLock lock(bucket);
    if (int rc = lock.status(); rc != kOk) return rc;
    MTR_CXT_VAR* cxt = nullptr;
    if (bucket.last_var && bucket.last_var->pid == gvar.pid && bucket.last_var->tid == caller.tid) {
        cxt = bucket.last_var;
    } else if (MtrIdxEntry* e = find_entry(bucket, caller.tid)) {
        cxt = e->var;
    }
    if (cxt && left_by_earlier_thread(*cxt, caller)) cxt = nullptr;  // the miss reclaims it
    if (!cxt) {
        if (int rc = miss(bucket, caller.tid, caller.ktid, &cxt); rc != kOk) return rc;
    } else if (!entry_is_ours(*cxt)) {
        if (int rc = register_again(bucket, *cxt); rc != kOk) return rc;
    }
    touch_context(*cxt, std::time(nullptr));
    if (tid_arg < 0) thread_own.context = OwnContext{cxt, __atomic_load_n(&cxt->stamp, __ATOMIC_RELAXED)};
    // A context made for an id a caller gave, now used by the thread whose
    // handle that id is, takes that thread's liveness.
    if (cxt->ktid == 0) cxt->ktid = caller.ktid;
    const uint64_t tid = caller.tid;
    if (cxt->ptrc && cxt->ptrc->tid != tid)
        log_printf("<!> get_mtr_cxt_var return error!! tid (%lu) <> get_ptrc-> tid (%lu)[ pid %d, pidx %d ]",
                   static_cast<unsigned long>(tid), static_cast<unsigned long>(cxt->ptrc->tid), cxt->ptrc->pid,
                   cxt->ptrc->pidx);
    *out = cxt;
    return kOk;
}

}  // namespace

int get_mtr_cxt_var(int32_t tid_arg, MTR_CXT_VAR** out) {
    // Sequentially consistent: read after the entry gate counted the caller.
    if (gvar.init_mark.load() != kInitMarkReady) return VARNIX_RC_NOT_INIT;
    if (tid_arg < 0) {
        if (MTR_CXT_VAR* own = own_context_now()) {
            *out = own;
            return kOk;
        }
    }
    return look_up(tid_arg, out);
}

int context_with_entry(int32_t tid, MTR_CXT_VAR** out) {
    if (int rc = get_mtr_cxt_var(tid, out); rc != kOk) return rc;
    return (*out)->ptrc ? kOk : VARNIX_RC_PTRC_FULL;
}

}  // namespace varnix
