#include <sys/ipc.h>
#include <sys/msg.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "core/clock.h"
#include "core/gvar.h"
#include "core/ipc.h"
#include "core/no_cancel.h"
#include "core/reattach.h"

namespace varnix {
namespace {

// A queue found gone is looked up at most this often: a removed queue then
// costs one failed send per record, not a look-up per record.
constexpr int64_t kLookupIntervalMs = 100;

// Takes up queue q again if the collector has re-created it.  Only the thread
// that moves the due time on looks; the others keep dropping their records
// meanwhile.  msgget without the create flag neither creates nor waits.
void look_up_again(int q) {
    if (q >= __atomic_load_n(&gvar.msgq_cnt, __ATOMIC_RELAXED)) return;  // never attached: stays refused
    const int64_t now = monotonic_us() / 1000;
    int64_t due = __atomic_load_n(&gvar.msgq_lookup_due_ms[q], __ATOMIC_RELAXED);
    if (now < due) return;
    if (!__atomic_compare_exchange_n(&gvar.msgq_lookup_due_ms[q], &due, now + kLookupIntervalMs, false,
                                     __ATOMIC_RELAXED, __ATOMIC_RELAXED))
        return;
    const int id = create_msgq(__atomic_load_n(&gvar.msgq_key_base, __ATOMIC_RELAXED) + q);
    if (id >= 0) __atomic_store_n(&gvar.msgq_id[q], id, __ATOMIC_RELAXED);
}

}  // namespace

void look_up_queues() {
    const key_t base = __atomic_load_n(&gvar.msgq_key_base, __ATOMIC_RELAXED);
    for (int q = 0; q < __atomic_load_n(&gvar.msgq_cnt, __ATOMIC_RELAXED); ++q) {
        const int id = create_msgq(base + q);
        if (id >= 0) __atomic_store_n(&gvar.msgq_id[q], id, __ATOMIC_RELAXED);
    }
}

int create_msgq(key_t key) { return refuse_private_key(key) ? -1 : msgget(key, kIpcPerm); }

int send_msgq(int qid, const void* msg, int size) {
#ifdef SYS_msgsnd
    // The system call itself: the C library's msgsnd is a cancellation point,
    // even when it does not wait, and would have to be fenced by two changes
    // of the cancel state around every record.
    return static_cast<int>(syscall(SYS_msgsnd, qid, msg, size, IPC_NOWAIT));
#else
    NoCancel no_cancel;
    return msgsnd(qid, msg, size, IPC_NOWAIT);
#endif
}

int send_to_queue(int q, const void* msg, int size) {
    if (send_msgq(__atomic_load_n(&gvar.msgq_id[q], __ATOMIC_RELAXED), msg, size) == 0) return 0;
    // EAGAIN is a full queue that is still there; EIDRM and EINVAL say that
    // the id no longer names a queue, and perhaps that the collector has
    // created all its objects anew.
    if (errno == EIDRM || errno == EINVAL) {
        look_up_again(q);
        look_for_new_collector();
    }
    return -1;
}

}  // namespace varnix

using namespace varnix;

extern "C" {

int read_msgq(int qid, long type, void* buf, int size, int nowait) {
    ssize_t n;
    do {
        n = msgrcv(qid, buf, size, type, nowait ? IPC_NOWAIT : 0);
    } while (n < 0 && errno == EINTR);
    return static_cast<int>(n);
}

int remove_msgq(int qid) { return msgctl(qid, IPC_RMID, nullptr); }

int change_mode_msgq(int qid, const char* mode) {
    msqid_ds ds{};
    if (msgctl(qid, IPC_STAT, &ds) < 0) return -1;
    unsigned short perm = 0;
    if (!mode || std::sscanf(mode, "%ho", &perm) != 1) {
        errno = EINVAL;
        return -1;
    }
    ds.msg_perm.mode = perm;
    return msgctl(qid, IPC_SET, &ds);
}

int get_msgq_num(int qid) {
    msqid_ds ds{};
    int rc = msgctl(qid, IPC_STAT, &ds);
    return rc < 0 ? rc : static_cast<int>(ds.msg_qnum);
}

}  // extern "C"
