#include "collector/ipc_object.h"

#include <sys/ipc.h>
#include <sys/msg.h>
#include <sys/sem.h>
#include <sys/shm.h>

#include <array>

namespace varnix::collector {
namespace {

constexpr mode_t kPermBits = 0777;

union SemArg {
    int val;
    semid_ds* buf;
};

// IPC_STAT of an object's descriptor, whose permissions `change` sees; when
// it returns true, the descriptor is written back with IPC_SET (a queue keeps
// its byte limit as it stands).
template <typename Ds, typename Call, typename Change>
int control(Call call, ipc_perm Ds::*perm_of, Change change) {
    Ds ds{};
    if (call(IPC_STAT, &ds) != 0) return -1;
    return change(ds.*perm_of) ? call(IPC_SET, &ds) : 0;
}

template <typename Change>
int control(const IpcObject& o, Change change) {
    switch (o.kind) {
    case IpcKind::shm:
        return control([&](int cmd, shmid_ds* ds) { return shmctl(o.id, cmd, ds); }, &shmid_ds::shm_perm, change);
    case IpcKind::sem:
        return control(
            [&](int cmd, semid_ds* ds) {
                SemArg arg{};
                arg.buf = ds;
                return semctl(o.id, 0, cmd, arg);
            },
            &semid_ds::sem_perm, change);
    case IpcKind::msg:
        return control([&](int cmd, msqid_ds* ds) { return msgctl(o.id, cmd, ds); }, &msqid_ds::msg_perm, change);
    }
    return -1;
}

}  // namespace

std::string_view kind_name(IpcKind kind) {
    static constexpr std::array<std::string_view, 3> kNames{"shm", "sem", "msg"};
    return kNames[static_cast<size_t>(kind)];
}

std::string_view kind_text(IpcKind kind) {
    static constexpr std::array<std::string_view, 3> kTexts{"shared memory", "semaphore set", "message queue"};
    return kTexts[static_cast<size_t>(kind)];
}

bool stat_object(const IpcObject& obj, IpcPerm& out) {
    return control(obj, [&](const ipc_perm& p) {
               out = IpcPerm{p.uid, p.cuid, p.gid, p.mode & kPermBits, p.__key};
               return false;
           }) == 0;
}

int set_access(const IpcObject& obj, const Access& access) {
    return control(obj, [&](ipc_perm& p) {
        p.mode = (p.mode & ~kPermBits) | (access.mode & kPermBits);
        if (access.gid != Access::kOwnGroup) p.gid = access.gid;
        return true;
    });
}

int remove_object(const IpcObject& obj) {
    switch (obj.kind) {
    case IpcKind::shm: return shmctl(obj.id, IPC_RMID, nullptr);
    case IpcKind::sem: return semctl(obj.id, 0, IPC_RMID);
    case IpcKind::msg: return msgctl(obj.id, IPC_RMID, nullptr);
    }
    return -1;
}

}  // namespace varnix::collector
