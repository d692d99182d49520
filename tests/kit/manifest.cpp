#include "kit/manifest.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <mutex>
#include <string_view>

#include "kit/config_file.h"

namespace varnix::kit {
namespace {

using collector::IpcKind;

bool kind_of(std::string_view name, IpcKind& out) {
    for (IpcKind k : {IpcKind::shm, IpcKind::sem, IpcKind::msg}) {
        if (collector::kind_name(k) == name) {
            out = k;
            return true;
        }
    }
    return false;
}

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
        const std::string_view kind = collector::kind_name(o.kind);
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
        collector::IpcPerm perm;
        return !collector::stat_object(o, perm) && (errno == EINVAL || errno == EIDRM);
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

}  // namespace varnix::kit
