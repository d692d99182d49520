// Thin wrappers over System V message queues, semaphores and shared memory.
// The library only attaches to objects the collector created (no create
// flag).  Every call returns -1 with errno set on failure unless said
// otherwise.
#pragma once

#include <sys/ipc.h>
#include <sys/shm.h>
#include <sys/types.h>

#include <cerrno>
#include <cstddef>

#include "varnix_collector.h"

namespace varnix {

inline constexpr int kIpcPerm = 0666;
inline constexpr short kSemUndo = 4096;  // SEM_UNDO: the kernel reverts a dead holder's lock

// Key 0 is IPC_PRIVATE, for which the system makes a new object instead of
// finding the collector's: the lookups below refuse it (ENOENT) rather than
// leave a private object behind on every attempt.
inline bool refuse_private_key(key_t key) {
    if (key != IPC_PRIVATE) return false;
    errno = ENOENT;
    return true;
}

// The collector's shared-memory block under `key`, of at least `size` bytes.
inline int find_shm(key_t key, size_t size) { return refuse_private_key(key) ? -1 : shmget(key, size, kIpcPerm); }

int create_msgq(key_t key);
// msgsnd with IPC_NOWAIT: a full queue fails at once with EAGAIN.
int send_msgq(int qid, const void* msg, int size);
// Sends to the attached queue number q (below VARNIX_MAX_QUE_CNT) without
// waiting.  When the queue has been removed, its key is looked up again, at
// most every 100 ms, so that records flow again once the collector re-creates
// it; the failed record itself is dropped.
int send_to_queue(int q, const void* msg, int size);
// Looks every attached queue up again by its key, at once: the collector has
// created its objects anew.
void look_up_queues();

int create_sem(key_t key, int nsems);
int sem_lock(int semid, int semnum, short flags);
// sem_lock that gives up after timeout_ms (errno EAGAIN): a holder that is
// stopped or slow must never freeze a host thread.
int sem_lock_for(int semid, int semnum, short flags, int timeout_ms);
int sem_unlock(int semid, int semnum, short flags);
// Waits until the semaphore is zero.  Kept inside the library: its name is
// that of the POSIX function, which an exported symbol would replace for the
// whole host process.
void sem_wait(int semid, int semnum);

}  // namespace varnix
