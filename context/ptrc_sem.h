// Holder of the process-thread table semaphore.
#pragma once

#include "core/gvar.h"
#include "core/ipc.h"

namespace varnix {

// owns() is false when the semaphore could not be taken (the collector
// removed it): the table's chains must then be left alone.
class PtrcSemGuard {
public:
    PtrcSemGuard() : owned_(sem_lock(gvar.ptrc_hash_semid, 0, kSemUndo) == 0) {}
    ~PtrcSemGuard() {
        if (owned_) sem_unlock(gvar.ptrc_hash_semid, 0, kSemUndo);
    }
    PtrcSemGuard(const PtrcSemGuard&) = delete;
    PtrcSemGuard& operator=(const PtrcSemGuard&) = delete;
    bool owns() const { return owned_; }

private:
    bool owned_;
};

}  // namespace varnix
