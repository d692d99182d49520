#include "collector/agent_objects.h"

#include <sys/ipc.h>
#include <sys/msg.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace varnix::agent {
namespace {

union SemArg {
    int val;
    semid_ds* buf;
};

// Bytes of a block, semaphores of a set (0 for a queue); -1 when unreadable.
long size_of(const ConfigObject& o) {
    if (o.kind == collector::IpcKind::shm) {
        shmid_ds ds{};
        return shmctl(o.id, IPC_STAT, &ds) == 0 ? static_cast<long>(ds.shm_segsz) : -1;
    }
    if (o.kind == collector::IpcKind::sem) {
        semid_ds ds{};
        SemArg arg{};
        arg.buf = &ds;
        return semctl(o.id, 0, IPC_STAT, arg) == 0 ? static_cast<long>(ds.sem_nsems) : -1;
    }
    return 0;
}

// A block attached read-only for a look.
template <typename T>
class View {
public:
    explicit View(int id) : p_(static_cast<const T*>(shmat(id, nullptr, SHM_RDONLY))) {}
    ~View() {
        if (ok()) shmdt(p_);
    }
    View(const View&) = delete;
    View& operator=(const View&) = delete;
    bool ok() const { return p_ != reinterpret_cast<const T*>(-1); }
    const T& operator*() const { return *p_; }
    const T* operator->() const { return p_; }

private:
    const T* p_;
};

std::string hex(uint32_t v) {
    char buf[16];
    std::snprintf(buf, sizeof buf, "0x%08X", v);
    return buf;
}

void check_control_block(const TRAN_LOGF_QUE_INFO& q, int max_que_cnt, const std::string& what,
                         std::vector<std::string>& why) {
    const uint32_t magic = q.magic_code;
    const int32_t qcnt = q.qcnt;
    const uint32_t mask = q.que_mask;
    if (magic != VARNIX_MAGIC_CODE)
        why.push_back(what + ": magic_code " + hex(magic) + ", not " + hex(VARNIX_MAGIC_CODE));
    if (qcnt < 1 || qcnt > max_que_cnt)
        why.push_back(what + ": qcnt " + std::to_string(qcnt) + ", not 1.." + std::to_string(max_que_cnt) +
                      " (MAX_QUE_CNT)");
    else if (mask != static_cast<uint32_t>(qcnt - 1))
        why.push_back(what + ": que_mask " + std::to_string(mask) + ", not qcnt - 1");
}

// A table's entry count and its two stacks' counts: none above the table.
void check_counts(const std::string& what, uint32_t entries, uint32_t free_cnt, uint32_t used_cnt,
                  std::vector<std::string>& why) {
    const uint64_t stacked = uint64_t{free_cnt} + used_cnt;
    if (entries > VARNIX_TBL_ENTRIES || stacked > VARNIX_TBL_ENTRIES)
        why.push_back(what + ": " + std::to_string(entries) + " entries in use, " + std::to_string(free_cnt) +
                      " free and " + std::to_string(used_cnt) + " used on its stacks: more than " +
                      std::to_string(VARNIX_TBL_ENTRIES));
}

// The contents of the three blocks, first of `objs` and of the right sizes.
void check_contents(const ConfigKeys& c, const std::vector<ConfigObject>& objs, std::vector<std::string>& why) {
    const View<TRAN_LOGF_QUE_INFO> q(objs[0].id);
    const View<SVC_HASH_TBL> s(objs[1].id);
    const View<PTRC_HASH_TBL> p(objs[2].id);
    if (!q.ok() || !s.ok() || !p.ok()) {
        why.push_back(std::string("the shared memory cannot be attached: ") + std::strerror(errno));
        return;
    }
    check_control_block(*q, c.max_que_cnt, describe(objs[0]), why);
    check_counts(describe(objs[1]), s->svc_cnt, s->svc_free_stk.cnt, s->svc_used_stk.cnt, why);
    check_counts(describe(objs[2]), p->used_cnt, p->free_stk.cnt, p->used_stk.cnt, why);
}

}  // namespace

std::vector<ConfigObject> config_objects(const ConfigKeys& c, const collector::HostObjects::Ids& ids) {
    using collector::IpcKind;
    std::vector<ConfigObject> all = {
        {IpcKind::shm, "TRAN_LOGF_QUE_INFO", c.keys.que_info, ids.que_info_shm, sizeof(TRAN_LOGF_QUE_INFO)},
        {IpcKind::shm, "SVC_HASH_TBL", c.keys.svc_shm, ids.svc_shm, sizeof(SVC_HASH_TBL)},
        {IpcKind::shm, "PTRC_HASH_TBL", c.keys.ptrc_shm, ids.ptrc_shm, sizeof(PTRC_HASH_TBL)}};
    for (int i = 0; i < c.max_que_cnt; ++i)
        all.push_back({IpcKind::msg, std::to_string(i), c.keys.msgq + i, ids.msgq[i], 0});
    all.push_back({IpcKind::sem, "SVC_HASH_TBL", c.keys.svc_sem, ids.svc_sem, 1});
    all.push_back({IpcKind::sem, "PTRC_HASH_TBL", c.keys.ptrc_sem, ids.ptrc_sem, VARNIX_PTRC_SEM_CNT});
    return all;
}

std::string describe(const ConfigObject& o) {
    char key[16];
    std::snprintf(key, sizeof key, "0x%08x", static_cast<unsigned>(o.key));
    return std::string(collector::kind_text(o.kind)) + " " + o.name + " (key " + key + ")";
}

bool AgentToken::take(int semid) {
    if (collector::take_agent_token(semid) != 0) return false;
    semid_ = semid;
    return true;
}

AgentToken::~AgentToken() {
    sembuf op{VARNIX_PTRC_SEM_AGENT, -1, SEM_UNDO | IPC_NOWAIT};
    if (semid_ >= 0 && semop(semid_, &op, 1) != 0 && errno != EINVAL && errno != EIDRM)
        std::perror("varnix-agent: giving the agent's token back");
}

bool refuse_if_agent_runs(AgentToken& token, int semid, const char* refusing, const char* cfg) {
    if (semid < 0 || token.take(semid) || errno != EAGAIN) return false;
    const int pid = semctl(semid, VARNIX_PTRC_SEM_AGENT, GETPID);
    if (pid > 0)
        std::fprintf(stderr, "varnix-agent: %s: the agent with pid %d runs with the objects of %s\n", refusing, pid,
                     cfg);
    else
        std::fprintf(stderr,
                     "varnix-agent: %s: an agent runs with the objects of %s; its pid is not visible from this pid "
                     "namespace\n",
                     refusing, cfg);
    return true;
}

std::vector<std::string> adoption_problems(const ConfigKeys& c, const collector::HostObjects::Ids& ids) {
    const std::vector<ConfigObject> objs = config_objects(c, ids);
    const uid_t me = geteuid();
    std::vector<std::string> why;
    for (const ConfigObject& o : objs) {
        collector::IpcPerm owner{};
        if (o.id < 0 || !collector::stat_object(collector::IpcObject{o.kind, o.id, o.key}, owner)) {
            why.push_back(describe(o) + ": missing");
            continue;
        }
        if (me != 0 && owner.uid != me && owner.cuid != me)
            why.push_back(describe(o) + ": belongs to uid " + std::to_string(owner.uid) + ", not to this user");
        const long size = size_of(o);
        if (o.kind != collector::IpcKind::msg && size != static_cast<long>(o.size))
            why.push_back(describe(o) + ": " + std::to_string(size) +
                          (o.kind == collector::IpcKind::shm ? " bytes, not " : " semaphores, not ") +
                          std::to_string(o.size));
    }
    if (why.empty()) check_contents(c, objs, why);
    return why;
}

}  // namespace varnix::agent
