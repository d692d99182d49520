// Diagnostic dump of one bucket of the thread-context table.
#include <cstdio>
#include <ctime>

#include "core/entry_gate.h"
#include "core/gvar.h"
#include "core/log_printf.h"
#include "core/mutex.h"
#include "core/status.h"
#include "varnix.h"

extern "C" void show_mtr_idx_list(int32_t bucket_no) {
    using namespace varnix;
    if (bucket_no < 0 || bucket_no >= kMtrBuckets) return;
    const EntryGate gate;
    if (gvar.init_mark.load() != kInitMarkReady) return;  // the bucket mutexes may be gone
    MTR_TID_IDX& bucket = gvar.mtr_tid_idx[bucket_no];
    MutexGuard guard(bucket.mtr_lock);
    if (!guard.owns()) return;
    log_printf("------>> mtr_idx_list (%d) <<------", bucket.mtr_cnt);
    std::time_t now = std::time(nullptr);
    for (int i = 0; i < bucket.mtr_cnt && i < kMtrPerBucket; ++i) {
        const MtrIdxEntry& e = bucket.mtr_idx_list[i];
        const MTR_CXT_VAR& v = *e.var;
        log_printf(">>idx arr[%d] tid : %lu", i, static_cast<unsigned long>(e.tid));
        log_printf(">>idx arr[%d] var->pid : %d", i, v.pid);
        log_printf(">>idx arr[%d] var->tid : %lu", i, static_cast<unsigned long>(v.tid));
        log_printf(">>idx arr[%d] var->idx : %d", i, v.idx);
        log_printf(">>idx arr[%d] var->log_bit : %d", i, v.log_bit);
        log_printf(">>idx arr[%d] var->cxt_init_flag : %d", i, v.cxt_init_flag);
        log_printf(">>idx arr[%d] var->in_use : %d", i, v.in_use);
        log_printf(">>idx arr[%d] var->lasted_access (sec): %d", i, static_cast<int>(now - __atomic_load_n(&v.lasted_access, __ATOMIC_RELAXED)));
    }
    std::puts("------------------------------");
}
