// Scoped pthread mutex holder.  Lock and unlock results are not ignored: a
// failed lock leaves the guard unowned, and owns() tells the caller.
#pragma once

#include <pthread.h>

namespace varnix {

class MutexGuard {
public:
    explicit MutexGuard(pthread_mutex_t& m) : m_(m), owned_(pthread_mutex_lock(&m) == 0) {}
    ~MutexGuard() {
        if (owned_) pthread_mutex_unlock(&m_);
    }
    MutexGuard(const MutexGuard&) = delete;
    MutexGuard& operator=(const MutexGuard&) = delete;
    bool owns() const { return owned_; }

private:
    pthread_mutex_t& m_;
    bool owned_;
};

}  // namespace varnix
