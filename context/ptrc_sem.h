// Holder of the process-thread table semaphore.  The semaphore is shared by
// every traced process on the host, so a holder that is stopped or slow must
// not freeze this process's threads: the wait is bounded, and a time-out is
// reported (at most once a second) and treated like a semaphore that is gone.
#pragma once

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

private:
    bool owned_;
};

}  // namespace varnix
