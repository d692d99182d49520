// Holder of the process-thread table semaphore.  The semaphore is shared by
// every traced process on the host, so a holder that is stopped or slow must
// not freeze this process's threads: the wait is bounded, and a time-out is
// reported (at most once a second) and treated like a semaphore that is gone.
// A semaphore that is gone may have been created anew with the collector's
// other objects: the guard then takes up the new ones and tries once more.
//
// The guard holds the semaphore of one table attachment (core/reattach.h) and
// names that attachment: the table it guards is that one, whatever has been
// attached since.
#pragma once

#include "core/reattach.h"

namespace varnix {

inline constexpr int kPtrcSemWaitMs = 50;

// owns() is false when the semaphore could not be taken in time or the
// collector removed it: the table's chains must then be left alone.
class PtrcSemGuard {
public:
    explicit PtrcSemGuard(int timeout_ms = kPtrcSemWaitMs);
    ~PtrcSemGuard();
    PtrcSemGuard(const PtrcSemGuard&) = delete;
    PtrcSemGuard& operator=(const PtrcSemGuard&) = delete;
    bool owns() const { return owned_; }
    // The attachment whose semaphore is held (or was tried).
    const PtrcAttach& attach() const { return attach_; }

private:
    // 0 when taken, else the errno of the failed wait.
    int take(int timeout_ms);

    PtrcAttach attach_;
    bool owned_;
};

}  // namespace varnix
