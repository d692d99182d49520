#include "context/ptrc_sem.h"

#include <cerrno>
#include <cstdint>

#include "core/gvar.h"
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

PtrcSemGuard::PtrcSemGuard(int timeout_ms)
    : owned_(sem_lock_for(gvar.ptrc_hash_semid, 0, kSemUndo, timeout_ms) == 0) {
    if (owned_)
        held();
    else if (errno == EAGAIN && busy_report.pass())
        log_printf("<!> ptrc_hash_tbl semaphore busy for %d ms, thread registration deferred", timeout_ms);
}

PtrcSemGuard::~PtrcSemGuard() {
    if (!owned_) return;
    releasing();
    (void)sem_unlock(gvar.ptrc_hash_semid, 0, kSemUndo);  // fails only when the semaphore is gone
}

}  // namespace varnix
