#include "collector/manifest.h"

#include <sys/ipc.h>
#include <sys/msg.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <mutex>
#include <string_view>

#include "collector/kit.h"

namespace varnix::kit {
namespace {

constexpr std::array<std::string_view, 3> kKindNames{"shm", "sem", "msg"};

bool kind_of(std::string_view name, IpcKind& out) {
    for (size_t i = 0; i < kKindNames.size(); ++i) {
        if (kKindNames[i] == name) {
            out = static_cast<IpcKind>(i);
            return true;
        }
    }
    return false;
}

union SemArg {
    int val;
    semid_ds* buf;
    unsigned short* array;
};

// The list of this process; `owner` tells a forked child that the list it
// inherited is its parent's.
struct Registry {
    std::mutex lock;
    pid_t owner = -1;
    std::vector<IpcObject> objects;
    bool warned = false;
};

Registry& registry() {
    static Registry* r = new Registry;  // never destroyed: exit handlers remove collectors late
    return *r;
}

void take_over(Registry& r) {
    const pid_t me = getpid();
    if (r.owner == me) return;
    r.owner = me;
    r.objects.clear();
}

std::string manifest_text(const Registry& r) {
    char line[64];
    std::snprintf(line, sizeof line, "pid %d\n", static_cast<int>(r.owner));
    std::string text = line;
    for (const IpcObject& o : r.objects) {
        const std::string_view kind = kind_name(o.kind);
        std::snprintf(line, sizeof line, "%.*s %d %d\n", static_cast<int>(kind.size()), kind.data(), o.id,
                      static_cast<int>(o.key));
        text += line;
    }
    return text;
}

// Rewrites this process's manifest, or deletes it when the list is empty;
// the caller holds the lock.  Objects removed without the kit (by the
// library's own wrappers, say) are dropped here.
void save(Registry& r) {
    std::erase_if(r.objects, [](const IpcObject& o) {
        IpcOwner owner;
        return !stat_object(o, owner) && (errno == EINVAL || errno == EIDRM);
    });
    const std::string dir = manifest_dir();
    const std::string path = dir.empty() ? dir : std::string(dir).append("/").append(std::to_string(r.owner));
    if (!dir.empty() && r.objects.empty()) {
        if (unlink(path.c_str()) == 0 || errno == ENOENT) return;
    } else if (!dir.empty() && write_file(path, manifest_text(r))) {
        return;
    }
    if (!r.warned) {
        std::fprintf(stderr, "[kit] cannot keep the manifest of IPC objects in /tmp/varnix-ipc-%u: "
                     "varnix-ipc-clean will not remove them\n", static_cast<unsigned>(geteuid()));
    }
    r.warned = true;
}

template <typename Drop>
void change(std::span<const IpcObject> objects, Drop drop, bool add) {
    Registry& r = registry();
    std::lock_guard<std::mutex> held(r.lock);
    take_over(r);
    for (const IpcObject& o : objects) {
        std::erase_if(r.objects, [&](const IpcObject& listed) { return listed.kind == o.kind && drop(listed, o); });
        if (add) r.objects.push_back(o);
    }
    save(r);
}

}  // namespace

std::string_view kind_name(IpcKind kind) { return kKindNames[static_cast<size_t>(kind)]; }

std::string manifest_dir() {
    const uid_t uid = geteuid();
    const std::string dir = std::string("/tmp/varnix-ipc-").append(std::to_string(uid));
    if (mkdir(dir.c_str(), 0700) != 0 && errno != EEXIST) return "";
    struct stat st {};
    if (lstat(dir.c_str(), &st) != 0 || !S_ISDIR(st.st_mode) || st.st_uid != uid || (st.st_mode & 077) != 0)
        return "";
    return dir;
}

void list_created(std::span<const IpcObject> objects) {
    change(objects, [](const IpcObject& listed, const IpcObject& o) { return listed.key == o.key; }, true);
}

void unlist_removed(std::span<const IpcObject> objects) {
    change(objects, [](const IpcObject& listed, const IpcObject& o) { return listed.id == o.id; }, false);
}

bool read_manifest(const std::string& path, Manifest& out) {
    std::FILE* fp = std::fopen(path.c_str(), "r");
    if (!fp) return false;
    int pid = -1, id = 0, key = 0, n = 0;
    char kind[8];
    bool ok = std::fscanf(fp, "pid %d", &pid) == 1 && pid > 0;
    out = Manifest{pid, {}};
    while (ok && (n = std::fscanf(fp, "%7s %d %d", kind, &id, &key)) == 3) {
        IpcKind k = IpcKind::shm;
        ok = kind_of(kind, k);
        out.objects.push_back(IpcObject{k, id, static_cast<key_t>(key)});
    }
    std::fclose(fp);
    return ok && n == EOF;
}

bool stat_object(const IpcObject& obj, IpcOwner& out) {
    ipc_perm perm{};
    if (obj.kind == IpcKind::shm) {
        shmid_ds ds{};
        if (shmctl(obj.id, IPC_STAT, &ds) != 0) return false;
        perm = ds.shm_perm;
    } else if (obj.kind == IpcKind::sem) {
        semid_ds ds{};
        SemArg arg{};
        arg.buf = &ds;
        if (semctl(obj.id, 0, IPC_STAT, arg) != 0) return false;
        perm = ds.sem_perm;
    } else {
        msqid_ds ds{};
        if (msgctl(obj.id, IPC_STAT, &ds) != 0) return false;
        perm = ds.msg_perm;
    }
    out = IpcOwner{perm.uid, perm.cuid, perm.__key};
    return true;
}

int remove_object(const IpcObject& obj) {
    switch (obj.kind) {
    case IpcKind::shm: return shmctl(obj.id, IPC_RMID, nullptr);
    case IpcKind::sem: return semctl(obj.id, 0, IPC_RMID);
    case IpcKind::msg: return msgctl(obj.id, IPC_RMID, nullptr);
    }
    return -1;
}

}  // namespace varnix::kit
