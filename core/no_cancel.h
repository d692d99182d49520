// Keeps the calling thread from being cancelled inside the library.  A host
// thread cancelled at one of the library's cancellation points (a log write,
// a semaphore wait) would leave a mutex locked or the entry gate counted for
// ever; a cancel request that arrives meanwhile stays pending and acts at the
// host's next cancellation point.
#pragma once

#include <pthread.h>

namespace varnix {

class NoCancel {
public:
    // pthread_setcancelstate fails only for an invalid state.
    NoCancel() { (void)pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &old_); }
    ~NoCancel() { (void)pthread_setcancelstate(old_, &old_); }
    NoCancel(const NoCancel&) = delete;
    NoCancel& operator=(const NoCancel&) = delete;

private:
    int old_ = PTHREAD_CANCEL_ENABLE;
};

}  // namespace varnix
