#include "context/ptrc_sem.h"

#include <atomic>
#include <cerrno>
#include <cstdint>

#include "core/clock.h"
#include "core/gvar.h"
#include "core/ipc.h"
#include "core/log_printf.h"

namespace varnix {
namespace {

constexpr int64_t kReportEveryUs = 1'000'000;
std::atomic<int64_t> last_report_us{-kReportEveryUs};

void report_busy(int timeout_ms) {
    const int64_t now = monotonic_us();
    int64_t last = last_report_us.load(std::memory_order_relaxed);
    if (now - last < kReportEveryUs || !last_report_us.compare_exchange_strong(last, now)) return;
    log_printf("<!> ptrc_hash_tbl semaphore busy for %d ms, thread registration deferred", timeout_ms);
}

}  // namespace

PtrcSemGuard::PtrcSemGuard(int timeout_ms)
    : owned_(sem_lock_for(gvar.ptrc_hash_semid, 0, kSemUndo, timeout_ms) == 0) {
    if (!owned_ && errno == EAGAIN) report_busy(timeout_ms);
}

PtrcSemGuard::~PtrcSemGuard() {
    if (owned_) (void)sem_unlock(gvar.ptrc_hash_semid, 0, kSemUndo);  // fails only when the semaphore is gone
}

}  // namespace varnix
