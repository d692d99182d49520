#include "collector/host_objects.h"

#include <errno.h>
#include <sys/ipc.h>
#include <sys/msg.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <time.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "core/gvar.h"
#include "core/readcfg.h"

namespace varnix::collector {
namespace {

const char* me() { return program_invocation_short_name; }

bool token(const char* cfg, const char* section, const char* key, int n, char (&out)[kCfgTokenMax + 1]) {
    return get_nth_token_in_file_section(cfg, section, key, n, out) == 1;
}

long number(const char* cfg, const char* section, const char* key, long fallback) {
    char t[kCfgTokenMax + 1];
    return token(cfg, section, key, 1, t) ? std::strtol(t, nullptr, 10) : fallback;
}

// Every "code,verdict" token of FST_ERR_RC_SET.  Read as one value: asking
// the reader for the token after the last one would report a missing token.
void apply_fst_err_rc_tokens(const char* cfg, TRAN_LOGF_QUE_INFO& q) {
    std::FILE* fp = std::fopen(cfg, "r");
    if (!fp) return;
    char value[1024];
    if (seek_section(fp, "TRAN_LOGF") > 0 && get_string_in_section(fp, "FST_ERR_RC_SET", value) > 0) {
        char* save = nullptr;
        for (char* t = strtok_r(value, " \t", &save); t; t = strtok_r(nullptr, " \t", &save))
            apply_fst_err_rc(q.fst_err_rc_set, t);
    }
    std::fclose(fp);
}

// The most semaphores the kernel allows in one set (SEMMSL, the first field
// of kernel.sem), or -1.
long semaphores_per_set() {
    std::FILE* fp = std::fopen("/proc/sys/kernel/sem", "r");
    long semmsl = -1;
    if (fp && std::fscanf(fp, "%ld", &semmsl) != 1) semmsl = -1;
    if (fp) std::fclose(fp);
    return semmsl;
}

int get_new(IpcKind kind, key_t key, size_t size, mode_t mode) {
    const int flags = IPC_CREAT | IPC_EXCL | static_cast<int>(mode & 0777);
    switch (kind) {
    case IpcKind::shm: return shmget(key, size, flags);
    case IpcKind::sem: return semget(key, static_cast<int>(size), flags);
    case IpcKind::msg: return msgget(key, flags);
    }
    return -1;
}

// A table in a segment just created, which the kernel hands out zero-filled:
// only what an empty table does not hold as zeros is written (the bucket
// heads and the free stack), so that its entries, 603 MB in the
// process-thread table, take no memory until threads use them.  The free
// stack lists every entry in order, as the library's own initialization
// leaves it.
void init_fresh(std::span<int32_t> heads, HASH_IDX_STK& free_stk) {
    std::fill(heads.begin(), heads.end(), -1);
    for (uint32_t n = 0; n < VARNIX_TBL_ENTRIES; ++n) free_stk.idx[n] = n;
    free_stk.cnt = VARNIX_TBL_ENTRIES;
}

void* attach_shm(int id, const char* name) {
    void* addr = shmat(id, nullptr, 0);
    if (addr != reinterpret_cast<void*>(-1)) return addr;
    std::fprintf(stderr, "%s: cannot attach shared memory %s (id %d): %s\n", me(), name, id, std::strerror(errno));
    return nullptr;
}

// Calls f for each object of `ids` (keys are not kept: 0).
template <typename F>
void for_each_object(const HostObjects::Ids& ids, F f) {
    for (int shm : {ids.que_info_shm, ids.svc_shm, ids.ptrc_shm})
        if (shm >= 0) f(IpcObject{IpcKind::shm, shm, 0});
    for (int sem : {ids.svc_sem, ids.ptrc_sem})
        if (sem >= 0) f(IpcObject{IpcKind::sem, sem, 0});
    for (int q : ids.msgq)
        if (q >= 0) f(IpcObject{IpcKind::msg, q, 0});
}

// Gives an adopted object the access asked for, saying what it had.
void give_access(const IpcObject& o, const Access& want) {
    IpcPerm was{};
    if (!stat_object(o, was)) return;  // gone: the drain reports a queue that cannot be read
    const mode_t mode = want.mode & 0777;
    const gid_t gid = want.gid == Access::kOwnGroup ? was.gid : want.gid;
    if (was.mode == mode && was.gid == gid) return;
    const std::string_view kind = kind_text(o.kind);
    const bool set = set_access(o, want) == 0;
    const int err = errno;
    std::fprintf(stderr, "%s: %.*s id %d (key 0x%08x) had mode %04o and group %u: ", me(),
                 static_cast<int>(kind.size()), kind.data(), o.id, static_cast<unsigned>(was.key),
                 static_cast<unsigned>(was.mode), static_cast<unsigned>(was.gid));
    if (set)
        std::fprintf(stderr, "now mode %04o and group %u\n", static_cast<unsigned>(mode), static_cast<unsigned>(gid));
    else
        std::fprintf(stderr, "kept, %s\n", std::strerror(err));
}

}  // namespace

// A new object, told to created() and given its group at once.  `id` holds
// it as soon as it exists, so that remove() removes it whatever follows;
// false, with a message, when it cannot be created or given its group.
bool HostObjects::new_object(IpcKind kind, key_t key, size_t size, const char* name, int& id) {
    id = get_new(kind, key, size, access_.mode);
    const IpcObject obj{kind, id, key};
    if (id >= 0) created(obj);
    if (id >= 0 && (access_.gid == Access::kOwnGroup || set_access(obj, access_) == 0)) return true;
    const int err = errno;
    const std::string_view text = kind_text(kind);
    std::fprintf(stderr, "%s: %s %.*s %s (key 0x%08x): %s\n", me(),
                 id < 0 ? "cannot create" : "cannot give its group to", static_cast<int>(text.size()), text.data(),
                 name, static_cast<unsigned>(key), std::strerror(err));
    if (const long semmsl = semaphores_per_set();
        id < 0 && kind == IpcKind::sem && err == EINVAL && semmsl >= 0 && semmsl < static_cast<long>(size))
        std::fprintf(stderr,
                     "%s: the set needs %zu semaphores, the kernel allows %ld a set: raise SEMMSL, the first field of "
                     "kernel.sem, to at least %zu (sysctl kernel.sem)\n",
                     me(), size, semmsl, size);
    return false;
}

void* HostObjects::new_shm(key_t key, size_t size, int& id, const char* name) {
    return new_object(IpcKind::shm, key, size, name, id) ? attach_shm(id, name) : nullptr;
}

// A semaphore set whose semaphore 0 is a free lock; the others start at 0.
bool HostObjects::new_sem(key_t key, int& id, int nsems, const char* name) {
    if (!new_object(IpcKind::sem, key, static_cast<size_t>(nsems), name, id)) return false;
    if (semctl(id, 0, SETVAL, 1) == 0) return true;
    std::fprintf(stderr, "%s: semaphore set %s (key 0x%08x): %s\n", me(), name, static_cast<unsigned>(key),
                 std::strerror(errno));
    return false;
}

int HostObjects::create_que_info(const char* cfg) {
    const key_t key = static_cast<key_t>(number(cfg, "IPC_SHARED_MEMORY", "TRAN_LOGF_QUE_INFO_SHMKEY", -1));
    void* addr = new_shm(key, sizeof(TRAN_LOGF_QUE_INFO), ids_.que_info_shm, "TRAN_LOGF_QUE_INFO");
    if (!addr) return -1;
    que_info_ = static_cast<TRAN_LOGF_QUE_INFO*>(addr);
    TRAN_LOGF_QUE_INFO& q = *que_info_;  // zero-filled by the kernel
    q.qcnt = static_cast<int32_t>(number(cfg, "TRAN_LOGF", "QUE_CNT", 1));
    q.que_mask = static_cast<uint32_t>(q.qcnt - 1);
    q.magic_code = VARNIX_MAGIC_CODE;
    char t[kCfgTokenMax + 1];
    if (token(cfg, "TRAN_LOGF", "TRAN_LOG_FLAG_SET", 1, t)) q.log_flag_set = get_log_flag_set(t);
    apply_fst_err_rc_tokens(cfg, q);
    q.svc_filtering = static_cast<uint8_t>(number(cfg, "TRAN_LOGF", "SVC_FILTERING", 0));
    q.call_trc_depth = static_cast<int32_t>(number(cfg, "TRAN_LOGF", "CALL_TRC_DEPTH", 0));
    q.call_trc_limit = number(cfg, "TRAN_LOGF", "CALL_TRC_LIMIT", 0);
    q.dbio_trc_limit = number(cfg, "TRAN_LOGF", "DBIO_TRC_LIMIT", 0);
    q.sql_trc_limit = number(cfg, "TRAN_LOGF", "SQL_TRC_LIMIT", 0);
    q.tong_log_flag = '0';
    return 0;
}

int HostObjects::create_tables(const char* cfg) {
    const key_t svc_shm = static_cast<key_t>(number(cfg, "IPC_SHARED_MEMORY", "SVC_HASH_TBL_SHMKEY", -1));
    const key_t svc_sem = static_cast<key_t>(number(cfg, "IPC_SEMAPHORE", "SVC_HASH_TBL_SEMKEY", -1));
    const key_t ptrc_shm = static_cast<key_t>(number(cfg, "IPC_SHARED_MEMORY", "PTRC_HASH_TBL_SHMKEY", -1));
    const key_t ptrc_sem = static_cast<key_t>(number(cfg, "IPC_SEMAPHORE", "PTRC_HASH_TBL_SEMKEY", -1));
    // Each table is ready before its semaphore exists: a traced process that
    // takes up re-created objects does so only once every semaphore is there.
    svc_ = static_cast<SVC_HASH_TBL*>(new_shm(svc_shm, sizeof(SVC_HASH_TBL), ids_.svc_shm, "SVC_HASH_TBL"));
    if (!svc_) return -1;
    init_fresh(svc_->svc_hash_idx, svc_->svc_free_stk);
    if (!new_sem(svc_sem, ids_.svc_sem, 1, "SVC_HASH_TBL")) return -1;
    ptrc_ = static_cast<PTRC_HASH_TBL*>(new_shm(ptrc_shm, sizeof(PTRC_HASH_TBL), ids_.ptrc_shm, "PTRC_HASH_TBL"));
    if (!ptrc_) return -1;
    init_fresh(ptrc_->hash_idx, ptrc_->free_stk);
    if (!new_sem(ptrc_sem, ids_.ptrc_sem, VARNIX_PTRC_SEM_CNT, "PTRC_HASH_TBL")) return -1;
    if (take_agent_token(ids_.ptrc_sem) != 0) {
        std::fprintf(stderr, "%s: the agent's semaphore (key 0x%08x): %s\n", me(), static_cast<unsigned>(ptrc_sem),
                     std::strerror(errno));
        return -1;
    }
    return 0;
}

int HostObjects::create_queues(const char* cfg) {
    const key_t base = static_cast<key_t>(number(cfg, "IPC_MESSAGE_QUE", "TRAN_LOGF_MSGQKEY", -1));
    max_que_cnt_ = static_cast<int>(number(cfg, "TRAN_LOGF", "MAX_QUE_CNT", 0));
    if (max_que_cnt_ < 1 || max_que_cnt_ > VARNIX_MAX_QUE_CNT) {
        std::fprintf(stderr, "%s: MAX_QUE_CNT %d out of range\n", me(), max_que_cnt_);
        return -1;
    }
    for (int i = 0; i < max_que_cnt_; ++i) {
        char name[16];
        std::snprintf(name, sizeof name, "%d", i);
        if (!new_object(IpcKind::msg, base + i, 0, name, ids_.msgq[i])) return -1;
    }
    return 0;
}

int HostObjects::create(const char* cfg_path) {
    remove();
    if (create_que_info(cfg_path) < 0 || create_tables(cfg_path) < 0 || create_queues(cfg_path) < 0) {
        remove();
        return -1;
    }
    return 0;
}

int take_agent_token(int semid) {
    sembuf ops[2] = {{VARNIX_PTRC_SEM_AGENT, 0, IPC_NOWAIT}, {VARNIX_PTRC_SEM_AGENT, 1, SEM_UNDO | IPC_NOWAIT}};
    return semop(semid, ops, 2);
}

int HostObjects::adopt(const Ids& ids, int max_que_cnt) {
    remove();
    if (max_que_cnt < 1 || max_que_cnt > VARNIX_MAX_QUE_CNT) {
        std::fprintf(stderr, "%s: MAX_QUE_CNT %d out of range\n", me(), max_que_cnt);
        return -1;
    }
    auto* q = static_cast<TRAN_LOGF_QUE_INFO*>(attach_shm(ids.que_info_shm, "TRAN_LOGF_QUE_INFO"));
    auto* s = static_cast<SVC_HASH_TBL*>(attach_shm(ids.svc_shm, "SVC_HASH_TBL"));
    auto* p = static_cast<PTRC_HASH_TBL*>(attach_shm(ids.ptrc_shm, "PTRC_HASH_TBL"));
    if (!q || !s || !p) {
        for (void* addr : {static_cast<void*>(q), static_cast<void*>(s), static_cast<void*>(p)})
            if (addr) shmdt(addr);
        return -1;
    }
    ids_ = ids;
    std::fill(std::begin(ids_.msgq) + max_que_cnt, std::end(ids_.msgq), -1);
    que_info_ = q;
    svc_ = s;
    ptrc_ = p;
    max_que_cnt_ = max_que_cnt;
    for_each_object(ids_, [&](const IpcObject& o) { give_access(o, access_); });
    return 0;
}

HostObjects::Ids ids_of(const Keys& keys, int max_que_cnt) {
    HostObjects::Ids ids;
    ids.que_info_shm = shmget(keys.que_info, 0, 0);
    ids.svc_shm = shmget(keys.svc_shm, 0, 0);
    ids.ptrc_shm = shmget(keys.ptrc_shm, 0, 0);
    ids.svc_sem = semget(keys.svc_sem, 0, 0);
    ids.ptrc_sem = semget(keys.ptrc_sem, 0, 0);
    for (int i = 0; i < std::min(max_que_cnt, VARNIX_MAX_QUE_CNT); ++i) ids.msgq[i] = msgget(keys.msgq + i, 0);
    return ids;
}

void remove_ids(const HostObjects::Ids& ids) {
    for_each_object(ids, [](const IpcObject& o) { remove_object(o); });
}

int HostObjects::remove() {
    // An object already gone (removed behind this collector's back) counts as
    // removed.
    std::vector<IpcObject> removed_now;
    int failed = 0;
    for_each_object(ids_, [&](const IpcObject& o) {
        if (remove_object(o) == 0 || errno == EINVAL || errno == EIDRM) {
            removed_now.push_back(o);
            return;
        }
        const std::string_view kind = kind_text(o.kind);
        std::fprintf(stderr, "%s: cannot remove %.*s id %d: %s\n", me(), static_cast<int>(kind.size()), kind.data(),
                     o.id, std::strerror(errno));
        ++failed;
    });
    if (!removed_now.empty()) removed(removed_now);
    for (void* addr : {static_cast<void*>(que_info_), static_cast<void*>(svc_), static_cast<void*>(ptrc_)})
        if (addr) shmdt(addr);
    ids_ = Ids{};
    que_info_ = nullptr;
    svc_ = nullptr;
    ptrc_ = nullptr;
    max_que_cnt_ = 0;
    return failed;
}

int HostObjects::raise_queue_bytes(unsigned long bytes) const {
    int raised = 0;
    for (int i = 0; i < max_que_cnt_; ++i) {
        msqid_ds ds{};
        if (msgctl(ids_.msgq[i], IPC_STAT, &ds) != 0) continue;
        if (ds.msg_qbytes >= bytes) {
            ++raised;
            continue;
        }
        ds.msg_qbytes = bytes;
        if (msgctl(ids_.msgq[i], IPC_SET, &ds) == 0) ++raised;
    }
    return raised;
}

int HostObjects::receive(TRAN_LOG_MSG& msg, int q) const {
    for (int i = q < 0 ? 0 : q; i < (q < 0 ? max_que_cnt_ : q + 1); ++i) {
        if (read_msgq(ids_.msgq[i], 0, &msg, VARNIX_REC_TEXT, 1) >= 0) return i;
    }
    return -1;
}

int HostObjects::receive_wait(TRAN_LOG_MSG& msg, int timeout_ms) const {
    const timespec step{0, 1'000'000};
    for (int waited = 0; waited <= timeout_ms; ++waited) {
        int q = receive(msg);
        if (q >= 0) return q;
        nanosleep(&step, nullptr);
    }
    return -1;
}

int HostObjects::drain() const {
    TRAN_LOG_MSG msg;
    int n = 0;
    while (receive(msg) >= 0) ++n;
    return n;
}

}  // namespace varnix::collector
