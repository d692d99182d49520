#include "collector/kit.h"

#include "collector/manifest.h"

#include <sys/ipc.h>
#include <sys/msg.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <time.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "context/hash.h"
#include "context/tables.h"
#include "core/gvar.h"
#include "core/readcfg.h"

namespace varnix::kit {
namespace {

constexpr int kCreatePerm = IPC_CREAT | IPC_EXCL | 0666;

bool token(const char* cfg, const char* section, const char* key, int n, char (&out)[kCfgTokenMax + 1]) {
    return get_nth_token_in_file_section(cfg, section, key, n, out) == 1;
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

long number(const char* cfg, const char* section, const char* key, long fallback) {
    char t[kCfgTokenMax + 1];
    return token(cfg, section, key, 1, t) ? std::strtol(t, nullptr, 10) : fallback;
}

void* attach_new_shm(key_t key, size_t size, int& id, const char* name) {
    id = shmget(key, size, kCreatePerm);
    if (id < 0) {
        std::fprintf(stderr, "[kit] shmget %s (key 0x%x): %s\n", name, static_cast<unsigned>(key),
                     std::strerror(errno));
        return nullptr;
    }
    list_created({{IpcObject{IpcKind::shm, id, key}}});
    void* addr = shmat(id, nullptr, 0);
    if (addr == reinterpret_cast<void*>(-1)) {
        std::fprintf(stderr, "[kit] shmat %s: %s\n", name, std::strerror(errno));
        return nullptr;
    }
    return addr;
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

// A semaphore set whose semaphore 0 is a free lock; the others start at 0.
int new_free_sem(key_t key, int& id, int nsems = 1) {
    id = semget(key, nsems, kCreatePerm);
    if (id >= 0) list_created({{IpcObject{IpcKind::sem, id, key}}});
    if (id < 0 || semctl(id, 0, SETVAL, 1) < 0) {
        const int err = errno;
        std::fprintf(stderr, "[kit] semaphore (key 0x%x): %s\n", static_cast<unsigned>(key), std::strerror(err));
        if (const long semmsl = semaphores_per_set(); id < 0 && err == EINVAL && semmsl >= 0 && semmsl < nsems)
            std::fprintf(stderr,
                         "[kit] the set needs %d semaphores, the kernel allows %ld a set: raise SEMMSL, the first "
                         "field of kernel.sem, to at least %d (sysctl kernel.sem)\n",
                         nsems, semmsl, nsems);
        return -1;
    }
    return 0;
}

}  // namespace

Keys keys_for_pid(pid_t pid) {
    key_t base = kKeyRangeBase + static_cast<key_t>(pid % kMaxPid) * kKeysPerPid;
    return Keys{base, base + 1, base + 2, base + 3, base + 4, base + 16};
}

pid_t owner_of_key(key_t key) {
    if (key < kKeyRangeBase || key >= kKeyRangeBase + kMaxPid * kKeysPerPid) return -1;
    return (key - kKeyRangeBase) / kKeysPerPid;
}

std::string config_text(const AgentConfig& s) {
    char buf[4096];
    std::snprintf(buf, sizeof buf,
                  "[COMMON]\n"
                  "LOG_HOME = %s\n"
                  "TONG_LOG_HOME = %s\n"
                  "\n[TRAN_LOGF]\n"
                  "LOG_INTERFACE = MQ\n"
                  "TR_SECTION = A\n"
                  "QUE_CNT = %d\n"
                  "MAX_QUE_CNT = %d\n"
                  "TRAN_LOG_FLAG_SET = %s\n"
                  "FST_ERR_RC_SET = %s\n"
                  "SVC_FILTERING = %d\n"
                  "CALL_TRC_DEPTH = %d\n"
                  "CALL_TRC_LIMIT = %ld\n"
                  "DBIO_TRC_LIMIT = %ld\n"
                  "SQL_TRC_LIMIT = %ld\n"
                  "IDLE_THREAD_RELEASE = %d 60\n"
                  "INFINITE_LOOP_BASE_CNT = %d\n"
                  "WRITE_QUE_IDX_GID_RNG = %d %d\n"
                  "\n[IPC_SHARED_MEMORY]\n"
                  "TRAN_LOGF_QUE_INFO_SHMKEY = %d\n"
                  "SVC_HASH_TBL_SHMKEY = %d\n"
                  "PTRC_HASH_TBL_SHMKEY = %d\n"
                  "\n[IPC_SEMAPHORE]\n"
                  "SVC_HASH_TBL_SEMKEY = %d\n"
                  "PTRC_HASH_TBL_SEMKEY = %d\n"
                  "\n[IPC_MESSAGE_QUE]\n"
                  "TRAN_LOGF_MSGQKEY = %d\n"
                  "\n[DATA_SIGNATURE]\n"
                  "DBIO_FUNC = %s\n"
                  "\n[SERVICE_HASH]\n"
                  "DEFAULT_TIMEOUT_SEC = %d\n",
                  s.log_home.c_str(), s.tong_log_home.c_str(), s.que_cnt, s.max_que_cnt, s.log_flag_set.c_str(),
                  s.fst_err_rc_set.c_str(), s.svc_filtering, s.call_trc_depth, s.call_trc_limit, s.dbio_trc_limit,
                  s.sql_trc_limit, s.idle_thread_release, s.infinite_loop_base_cnt, s.gid_rng_pos, s.gid_rng_siz, s.keys.que_info,
                  s.keys.svc_shm, s.keys.ptrc_shm, s.keys.svc_sem, s.keys.ptrc_sem, s.keys.msgq, s.dbio_func.c_str(),
                  s.default_timeout_sec);
    return buf;
}

bool write_file(const std::string& path, const std::string& text) {
    std::FILE* fp = std::fopen(path.c_str(), "w");
    if (!fp) return false;
    bool ok = std::fwrite(text.data(), 1, text.size(), fp) == text.size();
    return std::fclose(fp) == 0 && ok;
}

int create_queue(key_t key) {
    int id = msgget(key, kCreatePerm);
    if (id < 0) {
        std::fprintf(stderr, "[kit] msgget (key 0x%x): %s\n", static_cast<unsigned>(key), std::strerror(errno));
        return -1;
    }
    list_created({{IpcObject{IpcKind::msg, id, key}}});
    return id;
}

int remove_queue(int id) {
    const IpcObject queue{IpcKind::msg, id, 0};
    if (remove_object(queue) != 0) return -1;
    unlist_removed({{queue}});
    return 0;
}

int Collector::create_que_info(const char* cfg) {
    key_t key = static_cast<key_t>(number(cfg, "IPC_SHARED_MEMORY", "TRAN_LOGF_QUE_INFO_SHMKEY", -1));
    void* addr = attach_new_shm(key, sizeof(TRAN_LOGF_QUE_INFO), ids_.que_info_shm, "TRAN_LOGF_QUE_INFO");
    if (!addr) return -1;
    que_info_ = static_cast<TRAN_LOGF_QUE_INFO*>(addr);
    TRAN_LOGF_QUE_INFO& q = *que_info_;
    std::memset(&q, 0, sizeof q);
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

int Collector::create_tables(const char* cfg) {
    key_t svc_shm = static_cast<key_t>(number(cfg, "IPC_SHARED_MEMORY", "SVC_HASH_TBL_SHMKEY", -1));
    key_t svc_sem = static_cast<key_t>(number(cfg, "IPC_SEMAPHORE", "SVC_HASH_TBL_SEMKEY", -1));
    key_t ptrc_shm = static_cast<key_t>(number(cfg, "IPC_SHARED_MEMORY", "PTRC_HASH_TBL_SHMKEY", -1));
    key_t ptrc_sem = static_cast<key_t>(number(cfg, "IPC_SEMAPHORE", "PTRC_HASH_TBL_SEMKEY", -1));
    // Each table is ready before its semaphore exists: a traced process that
    // takes up re-created objects does so only once every semaphore is there.
    svc_ = static_cast<SVC_HASH_TBL*>(attach_new_shm(svc_shm, sizeof(SVC_HASH_TBL), ids_.svc_shm, "SVC_HASH_TBL"));
    if (!svc_) return -1;
    init_svc_hash_tbl(*svc_);
    if (new_free_sem(svc_sem, ids_.svc_sem) < 0) return -1;
    ptrc_ = static_cast<PTRC_HASH_TBL*>(
        attach_new_shm(ptrc_shm, sizeof(PTRC_HASH_TBL), ids_.ptrc_shm, "PTRC_HASH_TBL"));
    if (!ptrc_) return -1;
    init_ptrc_hash_tbl(*ptrc_);
    if (new_free_sem(ptrc_sem, ids_.ptrc_sem, VARNIX_PTRC_SEM_CNT) < 0) return -1;
    if (take_agent_token(ids_.ptrc_sem) != 0) {
        std::fprintf(stderr, "[kit] the agent's semaphore (key 0x%x): %s\n", static_cast<unsigned>(ptrc_sem),
                     std::strerror(errno));
        return -1;
    }
    return 0;
}

int Collector::create_queues(const char* cfg) {
    key_t base = static_cast<key_t>(number(cfg, "IPC_MESSAGE_QUE", "TRAN_LOGF_MSGQKEY", -1));
    max_que_cnt_ = static_cast<int>(number(cfg, "TRAN_LOGF", "MAX_QUE_CNT", 0));
    if (max_que_cnt_ < 1 || max_que_cnt_ > VARNIX_MAX_QUE_CNT) {
        std::fprintf(stderr, "[kit] MAX_QUE_CNT %d out of range\n", max_que_cnt_);
        return -1;
    }
    for (int i = 0; i < max_que_cnt_; ++i) {
        ids_.msgq[i] = create_queue(base + i);
        if (ids_.msgq[i] < 0) return -1;
    }
    return 0;
}

int Collector::create(const char* cfg_path) {
    remove();
    if (create_que_info(cfg_path) < 0 || create_tables(cfg_path) < 0 || create_queues(cfg_path) < 0) {
        remove();
        return -1;
    }
    return 0;
}

namespace {

void* attach_shm(int id, const char* name) {
    void* addr = shmat(id, nullptr, 0);
    if (addr != reinterpret_cast<void*>(-1)) return addr;
    std::fprintf(stderr, "[kit] shmat %s (id %d): %s\n", name, id, std::strerror(errno));
    return nullptr;
}

}  // namespace

int take_agent_token(int semid) {
    sembuf ops[2] = {{VARNIX_PTRC_SEM_AGENT, 0, IPC_NOWAIT}, {VARNIX_PTRC_SEM_AGENT, 1, SEM_UNDO | IPC_NOWAIT}};
    return semop(semid, ops, 2);
}

int Collector::adopt(const Ids& ids, int max_que_cnt) {
    remove();
    if (max_que_cnt < 1 || max_que_cnt > VARNIX_MAX_QUE_CNT) {
        std::fprintf(stderr, "[kit] MAX_QUE_CNT %d out of range\n", max_que_cnt);
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
    return 0;
}

Collector::Ids ids_of(const Keys& keys, int max_que_cnt) {
    Collector::Ids ids;
    ids.que_info_shm = shmget(keys.que_info, 0, 0);
    ids.svc_shm = shmget(keys.svc_shm, 0, 0);
    ids.ptrc_shm = shmget(keys.ptrc_shm, 0, 0);
    ids.svc_sem = semget(keys.svc_sem, 0, 0);
    ids.ptrc_sem = semget(keys.ptrc_sem, 0, 0);
    for (int i = 0; i < std::min(max_que_cnt, VARNIX_MAX_QUE_CNT); ++i) ids.msgq[i] = msgget(keys.msgq + i, 0);
    return ids;
}

namespace {

// Calls f for each object of `ids` (keys are not kept: 0).
template <typename F>
void for_each_object(const Collector::Ids& ids, F f) {
    for (int shm : {ids.que_info_shm, ids.svc_shm, ids.ptrc_shm})
        if (shm >= 0) f(IpcObject{IpcKind::shm, shm, 0});
    for (int sem : {ids.svc_sem, ids.ptrc_sem})
        if (sem >= 0) f(IpcObject{IpcKind::sem, sem, 0});
    for (int q : ids.msgq)
        if (q >= 0) f(IpcObject{IpcKind::msg, q, 0});
}

}  // namespace

void remove_ids(const Collector::Ids& ids) {
    for_each_object(ids, [](const IpcObject& o) { remove_object(o); });
}

int Collector::remove() {
    // An object already gone (removed behind the kit's back) counts as
    // removed; any other refusal leaves it listed in the manifest.
    std::vector<IpcObject> removed;
    int failed = 0;
    for_each_object(ids_, [&](const IpcObject& o) {
        if (remove_object(o) == 0 || errno == EINVAL || errno == EIDRM) {
            removed.push_back(o);
            return;
        }
        const std::string_view kind = kind_name(o.kind);
        std::fprintf(stderr, "[kit] cannot remove %.*s id %d: %s\n", static_cast<int>(kind.size()), kind.data(), o.id,
                     std::strerror(errno));
        ++failed;
    });
    if (!removed.empty()) unlist_removed(removed);
    for (void* addr : {static_cast<void*>(que_info_), static_cast<void*>(svc_), static_cast<void*>(ptrc_)})
        if (addr) shmdt(addr);
    ids_ = Ids{};
    que_info_ = nullptr;
    svc_ = nullptr;
    ptrc_ = nullptr;
    max_que_cnt_ = 0;
    return failed;
}

int Collector::raise_queue_bytes(unsigned long bytes) const {
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

int Collector::receive(TRAN_LOG_MSG& msg, int q) const {
    for (int i = q < 0 ? 0 : q; i < (q < 0 ? max_que_cnt_ : q + 1); ++i) {
        if (read_msgq(ids_.msgq[i], 0, &msg, VARNIX_REC_TEXT, 1) >= 0) return i;
    }
    return -1;
}

int Collector::receive_wait(TRAN_LOG_MSG& msg, int timeout_ms) const {
    const timespec step{0, 1'000'000};
    for (int waited = 0; waited <= timeout_ms; ++waited) {
        int q = receive(msg);
        if (q >= 0) return q;
        nanosleep(&step, nullptr);
    }
    return -1;
}

int Collector::drain() const {
    TRAN_LOG_MSG msg;
    int n = 0;
    while (receive(msg) >= 0) ++n;
    return n;
}

SVC_HASH* add_service(SVC_HASH_TBL& tbl, const ServiceListing& listing) {
    if (tbl.svc_free_stk.cnt == 0) return nullptr;
    uint32_t n = svc_hash_pop(&tbl.svc_free_stk);
    if (n >= VARNIX_TBL_ENTRIES) return nullptr;
    SVC_HASH& e = tbl.entry[n];
    std::memset(&e, 0, sizeof e);
    std::memset(e.svc_id, ' ', sizeof e.svc_id);
    std::memcpy(e.svc_id, listing.svc_id.data(), std::min(listing.svc_id.size(), sizeof e.svc_id));
    e.svc_flag_set = listing.flags;
    e.call_trc_depth = listing.call_trc_depth;
    e.call_trc_limit = listing.call_trc_limit;
    e.dbio_trc_limit = listing.dbio_trc_limit;
    e.sql_trc_limit = listing.sql_trc_limit;
    e.pidx = n;
    e.hidx = get_hidx(e.svc_id, sizeof e.svc_id, VARNIX_HASH_BUCKETS - 1);
    e.prev = -1;
    e.next = -1;
    int32_t* link = &tbl.svc_hash_idx[e.hidx];
    while (*link >= 0 && *link < VARNIX_TBL_ENTRIES) {
        e.prev = *link;
        link = &tbl.entry[*link].next;
    }
    // Processes read the chain without the semaphore: the entry is complete
    // before it becomes reachable.
    __atomic_store_n(link, static_cast<int32_t>(n), __ATOMIC_RELEASE);
    svc_hash_push(&tbl.svc_used_stk, n);
    ++tbl.svc_cnt;
    return &e;
}

}  // namespace varnix::kit
