#include <sys/ipc.h>
#include <sys/msg.h>

#include <cerrno>
#include <cstdio>

#include "core/ipc.h"

namespace varnix {

int create_msgq(key_t key) { return msgget(key, kIpcPerm); }

int send_msgq(int qid, const void* msg, int size) { return msgsnd(qid, msg, size, IPC_NOWAIT); }

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
