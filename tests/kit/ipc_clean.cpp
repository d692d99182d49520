// varnix-ipc-clean: removes the System V objects that processes of this
// project (a test that crashed, a fuzz target stopped by a finding, a
// benchmark that was killed) created through kit::Collector and left behind.
//
// It trusts nothing but the manifests of the current user (kit/manifest.h):
// an object is removed only when a manifest lists it, the process that wrote
// the manifest is gone, the object's key is still the listed one and lies in
// that process's own key block, and the current user both created and owns
// it.  The manifest is deleted afterwards.  Everything
// else, other users' objects included, is never touched.
#include <dirent.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "kit/collector.h"
#include "kit/manifest.h"

namespace {

using varnix::collector::IpcObject;

bool alive(pid_t pid) { return kill(pid, 0) == 0 || errno == EPERM; }

bool provably_left_by(const IpcObject& obj, pid_t creator) {
    varnix::collector::IpcPerm owner{};
    const uid_t me = geteuid();
    return varnix::kit::owner_of_key(obj.key) == creator % varnix::kit::kMaxPid &&
           varnix::collector::stat_object(obj, owner) && owner.key == obj.key && owner.uid == me && owner.cuid == me;
}

// Removes what the manifest at `path` proves to be left over and deletes the
// manifest; the number of objects removed (0 when its creator still runs).
int clean(const std::string& path) {
    varnix::kit::Manifest m;
    if (!varnix::kit::read_manifest(path, m) || alive(m.creator)) return 0;
    int removed = 0;
    for (const IpcObject& obj : m.objects) {
        if (!provably_left_by(obj, m.creator) || varnix::collector::remove_object(obj) != 0) continue;
        std::printf("removed id %d (key 0x%08x) of pid %d\n", obj.id, static_cast<unsigned>(obj.key), m.creator);
        ++removed;
    }
    if (unlink(path.c_str()) != 0) std::perror(path.c_str());
    return removed;
}

}  // namespace

int main() {
    const std::string dir = varnix::kit::manifest_dir();
    DIR* d = dir.empty() ? nullptr : opendir(dir.c_str());
    if (!d) {
        std::fprintf(stderr, "varnix-ipc-clean: no usable manifest directory /tmp/varnix-ipc-%u\n",
                     static_cast<unsigned>(geteuid()));
        return 1;
    }
    int n = 0;
    while (const dirent* e = readdir(d)) {
        if (e->d_name[0] != '.') n += clean(dir + "/" + e->d_name);
    }
    closedir(d);
    std::printf("varnix-ipc-clean: %d leftover object(s) removed\n", n);
    return 0;
}
