#include <sys/ipc.h>
#include <sys/sem.h>

#include <cerrno>

#include "core/clock.h"
#include "core/ipc.h"
#include "core/no_cancel.h"

namespace varnix {
namespace {

int sem_op(int semid, int semnum, short op, short flags) {
    NoCancel no_cancel;  // a semaphore wait is a cancellation point
    sembuf sb{static_cast<unsigned short>(semnum), op, flags};
    int rc;
    do {
        rc = semop(semid, &sb, 1);
    } while (rc < 0 && errno == EINTR);
    return rc;
}

}  // namespace

int sem_lock_for(int semid, int semnum, short flags, int timeout_ms) {
    NoCancel no_cancel;
    sembuf sb{static_cast<unsigned short>(semnum), -1, flags};
    const int64_t deadline = monotonic_us() + static_cast<int64_t>(timeout_ms) * 1000;
    for (;;) {
        const int64_t left = deadline - monotonic_us();
        timespec ts{left > 0 ? left / 1'000'000 : 0, left > 0 ? (left % 1'000'000) * 1000 : 0};
        if (semtimedop(semid, &sb, 1, &ts) == 0) return 0;
        if (errno != EINTR) return -1;  // EAGAIN: the time ran out
    }
}

int create_sem(key_t key, int nsems) { return refuse_private_key(key) ? -1 : semget(key, nsems, kIpcPerm); }

int sem_lock(int semid, int semnum, short flags) { return sem_op(semid, semnum, -1, flags); }

int sem_unlock(int semid, int semnum, short flags) { return sem_op(semid, semnum, 1, flags); }

void sem_wait(int semid, int semnum) { sem_op(semid, semnum, 0, 0); }

}  // namespace varnix

extern "C" int init_sem_val(int semid, int semnum, int value) {
    // The caller defines semun (the system headers do not).
    union semun {
        int val;
        struct semid_ds* buf;
        unsigned short* array;
    } arg{};
    arg.val = value;
    return semctl(semid, semnum, SETVAL, arg) < 0 ? -1 : 1;
}
