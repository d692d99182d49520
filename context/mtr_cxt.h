// Per-thread trace context: finding, making and freeing the contexts of the
// bucket table (core/cxt_table.h).
#pragma once

#include <sys/types.h>

#include <cstdint>

#include "core/cxt_table.h"
#include "core/reattach.h"
#include "varnix_collector.h"

namespace varnix {

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
