#include "context/ptrc_owner.h"

#include <sys/ipc.h>
#include <sys/sem.h>
#include <unistd.h>

#include <bitset>
#include <cerrno>
#include <cstdint>

#include "core/gvar.h"
#include "core/ipc.h"
#include "varnix_collector.h"

namespace varnix {
namespace {

// Raising and lowering never wait; the kernel undoes the process's share at its end.
constexpr short kTokenFlags = kSemUndo | IPC_NOWAIT;

struct HeldTokens {
    pid_t pid = 0;
    int semid = -1;
    std::bitset<VARNIX_TBL_ENTRIES> entries;
};
HeldTokens held;  // guarded by the table semaphore

std::bitset<VARNIX_TBL_ENTRIES>& held_in(int semid) {
    const pid_t pid = getpid();
    if (held.pid != pid || held.semid != semid) {
        held.pid = pid;
        held.semid = semid;
        held.entries.reset();
    }
    return held.entries;
}

}  // namespace

bool take_owner_token(int semid, uint32_t n) {
    if (n >= VARNIX_TBL_ENTRIES) return false;
    auto& entries = held_in(semid);
    if (entries.test(n)) return true;
    // Raising fails only for want of undo memory or past the largest value,
    // or when the set lacks the semaphore or is gone.
    if (sem_unlock(semid, VARNIX_PTRC_SEM_OWNER(n), kTokenFlags) == 0) {
        entries.set(n);
        return true;
    }
    return errno == EFBIG || errno == EINVAL || errno == EIDRM;
}

bool holds_owner_token(int semid, uint32_t n) { return n < VARNIX_TBL_ENTRIES && held_in(semid).test(n); }

bool owner_raised(int semid, uint32_t n) {
    return n >= VARNIX_TBL_ENTRIES || semctl(semid, VARNIX_PTRC_SEM_OWNER(n), GETVAL) != 0;
}

void give_back_owner_token(const PTRC_HASH* e) {
    // The writer thread publishes a re-created table while callers run.
    const PTRC_HASH_TBL* tbl = __atomic_load_n(&gvar.ptrc_hash_tbl, __ATOMIC_RELAXED);
    if (!e || !tbl) return;
    // Compared as addresses: the entry may lie in another mapping.
    const uintptr_t first = reinterpret_cast<uintptr_t>(tbl->entry), at = reinterpret_cast<uintptr_t>(e);
    if (at < first || (at - first) % sizeof(PTRC_HASH) != 0) return;
    const uintptr_t n = (at - first) / sizeof(PTRC_HASH);
    if (n >= VARNIX_TBL_ENTRIES) return;
    const int semid = __atomic_load_n(&gvar.ptrc_hash_semid, __ATOMIC_RELAXED);
    auto& entries = held_in(semid);
    if (!entries.test(n)) return;
    entries.reset(n);
    // Fails only when the set is gone, and with it the token.
    (void)sem_lock(semid, VARNIX_PTRC_SEM_OWNER(n), kTokenFlags);
}

}  // namespace varnix
