#include "collector/agent_ipc.h"

#include <sys/ipc.h>
#include <sys/msg.h>
#include <sys/sem.h>
#include <sys/shm.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "core/ipc.h"

namespace varnix::agent {
namespace {

// What an operator does about a failed look-up or attachment.
const char* hint(int err) {
    if (err == ENOENT) return "; is the agent running?";
    if (err == EACCES) return "; the objects are for their owner and the members of their group (ipcs -c)";
    return "";
}

void* attach(key_t key, size_t size, int flags, const char* name) {
    const int id = shmget(key, size, 0);
    void* addr = id < 0 ? reinterpret_cast<void*>(-1) : shmat(id, nullptr, flags);
    if (addr == reinterpret_cast<void*>(-1)) {
        const int err = errno;
        std::fprintf(stderr, "varnix-agent: shared memory %s (key 0x%08x): %s%s\n", name, static_cast<unsigned>(key),
                     std::strerror(err), hint(err));
        return nullptr;
    }
    return addr;
}

int semaphore(key_t key, const char* name) {
    const int id = semget(key, 1, 0);
    const int err = errno;
    if (id < 0)
        std::fprintf(stderr, "varnix-agent: semaphore set %s (key 0x%08x): %s%s\n", name, static_cast<unsigned>(key),
                     std::strerror(err), hint(err));
    return id;
}

}  // namespace

bool Attached::open(const char* cfg, unsigned parts, bool writable) {
    if (!check_config(cfg)) return false;
    const ConfigKeys c = config_keys(cfg);
    if (parts & kQueInfo) {
        que_info = static_cast<TRAN_LOGF_QUE_INFO*>(
            attach(c.keys.que_info, sizeof(TRAN_LOGF_QUE_INFO), 0, "TRAN_LOGF_QUE_INFO"));
        if (!que_info) return false;
    }
    if (parts & kPtrc) {
        ptrc = static_cast<PTRC_HASH_TBL*>(
            attach(c.keys.ptrc_shm, sizeof(PTRC_HASH_TBL), writable ? 0 : SHM_RDONLY, "PTRC_HASH_TBL"));
        if (!ptrc || (ptrc_sem = semaphore(c.keys.ptrc_sem, "PTRC_HASH_TBL")) < 0) return false;
    }
    if (parts & kSvc) {
        svc = static_cast<SVC_HASH_TBL*>(attach(c.keys.svc_shm, sizeof(SVC_HASH_TBL), 0, "SVC_HASH_TBL"));
        if (!svc || (svc_sem = semaphore(c.keys.svc_sem, "SVC_HASH_TBL")) < 0) return false;
    }
    return true;
}

Attached::~Attached() {
    for (const void* addr : {static_cast<const void*>(que_info), static_cast<const void*>(ptrc),
                             static_cast<const void*>(svc)})
        if (addr && shmdt(addr) != 0) std::perror("varnix-agent: shmdt");
}

SemHold::SemHold(int semid, int timeout_ms)
    : semid_(semid), owned_(sem_lock_for(semid, 0, kSemUndo, timeout_ms) == 0) {
    if (!owned_) std::fprintf(stderr, "varnix-agent: semaphore %d not taken: %s\n", semid, std::strerror(errno));
}

SemHold::~SemHold() {
    if (owned_ && sem_unlock(semid_, 0, kSemUndo) != 0) std::perror("varnix-agent: semaphore release");
}

}  // namespace varnix::agent
