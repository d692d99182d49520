// One System V object of the collector side, by kind and id: its owner, mode
// and group as the kernel keeps them, and the calls that change or remove it.
#pragma once

#include <sys/types.h>

#include <string_view>

namespace varnix::collector {

enum class IpcKind { shm, sem, msg };

// "shm", "sem" or "msg".
std::string_view kind_name(IpcKind kind);
// "shared memory", "semaphore set" or "message queue".
std::string_view kind_text(IpcKind kind);

struct IpcObject {
    IpcKind kind;
    int id;
    key_t key;
};

// Who may use the objects the collector creates: permission bits and group.
// Traced processes attach with the library's usual flags (read and write
// asked for everybody), which the kernel grants to the owner and, through the
// group bits, to members of the object's group.
struct Access {
    static constexpr gid_t kOwnGroup = static_cast<gid_t>(-1);  // the creating process's group
    mode_t mode = 0660;
    gid_t gid = kOwnGroup;
};

// The owner, creator, group, permission bits and key of a live object.
struct IpcPerm {
    uid_t uid, cuid;
    gid_t gid;
    mode_t mode;  // the permission bits only
    key_t key;
};
// False (errno set) when the object no longer exists or cannot be inspected.
bool stat_object(const IpcObject& obj, IpcPerm& out);
// Sets the object's permission bits and, unless kOwnGroup, its group
// (IPC_SET: the owner, the creator or a privileged process may); 0, or -1
// with errno.
int set_access(const IpcObject& obj, const Access& access);
// IPC_RMID; 0, or -1 with errno.
int remove_object(const IpcObject& obj);

}  // namespace varnix::collector
