// Per-thread trace context: finding, making and freeing the contexts of the
// bucket table (core/cxt_table.h).
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <ctime>

#include "core/cxt_table.h"
#include "core/reattach.h"
#include "core/thread_own.h"
#include "varnix_collector.h"

namespace varnix {

// The context's process-thread entry, or null when it has none or when it lies
// in a table the collector has replaced since.
inline PTRC_HASH* live_entry(const MTR_CXT_VAR& cxt) { return cxt.gen == tables_gen() ? cxt.ptrc : nullptr; }

// The entry still describes this context's thread: any process may have
// written another thread's pid and id into it.
inline bool entry_is_ours(const MTR_CXT_VAR& cxt) {
    const PTRC_HASH* e = live_entry(cxt);
    return e && e->pid == cxt.pid && e->tid == cxt.tid;
}

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
// holds the slot it was found in and its entry lies in the table attached now
// and still names its thread; else null.  Only after tracing was found on.
// Its user marks the access (touch_context).  `self` is the calling thread's
// thread_own.
inline MTR_CXT_VAR* own_context_held(const ThreadOwn& self = thread_own) {
    const OwnContext own = self.context;
    if (__atomic_load_n(&own.cxt->stamp, __ATOMIC_ACQUIRE) != own.stamp || !entry_is_ours(*own.cxt))
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
}  // namespace varnix
