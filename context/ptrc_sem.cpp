#include "context/ptrc_sem.h"

#include <cerrno>
#include <cstdint>

#include "core/ipc.h"
#include "core/log_printf.h"
#include "core/throttle.h"

#if defined(__SANITIZE_THREAD__)
#include <sanitizer/tsan_interface.h>
#endif

namespace varnix {
namespace {

// The race detector cannot see a System V semaphore order memory accesses;
// it is told, so that it checks the table against the lock it really has.
#if defined(__SANITIZE_THREAD__)
char sem_token;
void held() { __tsan_acquire(&sem_token); }
void releasing() { __tsan_release(&sem_token); }
#else
void held() {}
void releasing() {}
#endif

Throttle busy_report{1'000'000};

}  // namespace

PtrcSemGuard::PtrcSemGuard(int timeout_ms) : attach_(current_ptrc()), owned_(false) {
    int err = take(timeout_ms);
    // A semaphore removed, while waiting or before, may have been created anew
    // with the collector's other objects: they are taken up, and the new
    // semaphore is tried once.
    if (err != EIDRM && err != EINVAL) return;
    look_for_new_collector();
    if (tables_gen() == attach_.gen) return;
    attach_ = current_ptrc();
    (void)take(timeout_ms);
}

int PtrcSemGuard::take(int timeout_ms) {
    owned_ = sem_lock_for(attach_.semid, 0, kSemUndo, timeout_ms) == 0;
    if (owned_) {
        held();
        return 0;
    }
    const int err = errno;
    if (err == EAGAIN && busy_report.pass())
        log_printf("<!> ptrc_hash_tbl semaphore busy for %d ms, thread registration deferred", timeout_ms);
    return err;
}

PtrcSemGuard::~PtrcSemGuard() {
    if (!owned_) return;
    releasing();
    (void)sem_unlock(attach_.semid, 0, kSemUndo);  // fails only when the semaphore is gone
}

}  // namespace varnix
