// varnix-ipc-clean: removes System V objects left behind in the project's own
// key range by processes that no longer exist (a test that crashed, a demo
// that was killed).  Objects of live processes and every object outside the
// range are never touched.
#include <sys/ipc.h>
#include <sys/msg.h>
#include <sys/sem.h>
#include <sys/shm.h>

#include <cerrno>
#include <csignal>
#include <cstdio>

#include "collector/kit.h"

namespace {

bool alive(pid_t pid) { return kill(pid, 0) == 0 || errno == EPERM; }

// Walks /proc/sysvipc/<kind> ("key id ..." per line) and removes the dead
// owners' objects with `rm`; the number removed.
template <typename Remove>
int sweep(const char* kind, Remove rm) {
    char path[64];
    std::snprintf(path, sizeof path, "/proc/sysvipc/%s", kind);
    std::FILE* fp = std::fopen(path, "r");
    if (!fp) return 0;
    char line[512];
    int removed = 0;
    if (!std::fgets(line, sizeof line, fp)) {  // column titles
        std::fclose(fp);
        return 0;
    }
    while (std::fgets(line, sizeof line, fp)) {
        long key = 0, id = 0;
        if (std::sscanf(line, "%ld %ld", &key, &id) != 2) continue;
        pid_t owner = varnix::kit::owner_of_key(static_cast<key_t>(key));
        if (owner <= 0 || alive(owner)) continue;
        if (rm(static_cast<int>(id)) == 0) {
            std::printf("removed %s id %ld (key 0x%lx, pid %d gone)\n", kind, id, key, owner);
            ++removed;
        }
    }
    std::fclose(fp);
    return removed;
}

}  // namespace

int main() {
    int n = sweep("shm", [](int id) { return shmctl(id, IPC_RMID, nullptr); });
    n += sweep("sem", [](int id) { return semctl(id, 0, IPC_RMID); });
    n += sweep("msg", [](int id) { return msgctl(id, IPC_RMID, nullptr); });
    std::printf("varnix-ipc-clean: %d leftover object(s) removed\n", n);
    return 0;
}
