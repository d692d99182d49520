// The collector side's own layer: the System V objects a collector owns on
// its host (the control block, the two shared tables with their semaphore
// sets, the message queues), created from a configuration file or adopted
// from a collector that ended without removing them, the records read from
// the queues, and everything removed again.  The agent is built on it; so is
// the tests' collector (tests/kit), which also lists the objects it creates.
//
// Objects are created exclusively with the mode and group of an Access, the
// group set before any object is filled in, so that a traced process that
// attaches to one finds it as it stays.  Messages go to standard error,
// prefixed with the program's name.
#pragma once

#include <sys/types.h>

#include <span>

#include "collector/ipc_object.h"
#include "varnix_collector.h"

namespace varnix::collector {

// IPC keys of one collector.
struct Keys {
    key_t que_info;
    key_t svc_shm;
    key_t svc_sem;
    key_t ptrc_shm;
    key_t ptrc_sem;
    key_t msgq;  // base: queue i has key msgq + i
};

class HostObjects {
public:
    explicit HostObjects(const Access& access = {}) : access_(access) {}
    virtual ~HostObjects() { remove(); }
    HostObjects(const HostObjects&) = delete;
    HostObjects& operator=(const HostObjects&) = delete;

    // Creates every object the configuration file names; 0, or -1 with a
    // message on standard error (objects created so far are removed).
    int create(const char* cfg_path);
    // The ids of a collector's objects (-1: none), also for a crash handler
    // that must remove them without this class.
    struct Ids {
        int que_info_shm = -1, svc_shm = -1, svc_sem = -1, ptrc_shm = -1, ptrc_sem = -1;
        int msgq[VARNIX_MAX_QUE_CNT] = {-1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1};
    };

    // Takes over the objects of `ids`, which another collector created (and
    // the caller checked), with the first `max_que_cnt` queues: attaches the
    // three blocks as they are, gives every object this collector's mode and
    // group where it has others (saying so), and remove() removes them later
    // as its own.  0, or -1 with a message on standard error (nothing is
    // taken over).
    int adopt(const Ids& ids, int max_que_cnt);
    // Removes every object this collector created or adopted; the number it
    // could not remove (each reported on standard error).  Safe to call again.
    int remove();

    TRAN_LOGF_QUE_INFO* que_info() const { return que_info_; }
    PTRC_HASH_TBL* ptrc() const { return ptrc_; }
    SVC_HASH_TBL* svc() const { return svc_; }
    int max_que_cnt() const { return max_que_cnt_; }
    int msgq_id(int q) const { return ids_.msgq[q]; }
    const Ids& ids() const { return ids_; }

    // Raises the byte limit of every queue below `bytes` to `bytes`, as far as
    // this process is permitted (past kernel.msgmnb takes CAP_SYS_RESOURCE);
    // never lowers one.  The number of queues that hold `bytes` afterwards.
    int raise_queue_bytes(unsigned long bytes) const;

    // One record from queue q, or from the first non-empty queue when q < 0,
    // without waiting: the queue number, or -1 when there is none.
    int receive(TRAN_LOG_MSG& msg, int q = -1) const;
    // Waits up to timeout_ms for a record.
    int receive_wait(TRAN_LOG_MSG& msg, int timeout_ms) const;
    // Discards every waiting record; the number discarded.
    int drain() const;

protected:
    // Told of each object right after it exists, before anything else is
    // done with it, and of the objects remove() removed (an object already
    // gone counts).  Nothing here; a destructor of a subclass that uses them
    // calls remove() itself.
    virtual void created(const IpcObject& /*obj*/) {}
    virtual void removed(std::span<const IpcObject> /*objs*/) {}

private:
    int create_que_info(const char* cfg);
    int create_tables(const char* cfg);
    int create_queues(const char* cfg);
    bool new_object(IpcKind kind, key_t key, size_t size, const char* name, int& id);
    void* new_shm(key_t key, size_t size, int& id, const char* name);
    bool new_sem(key_t key, int& id, int nsems, const char* name);

    Access access_;
    Ids ids_;
    TRAN_LOGF_QUE_INFO* que_info_ = nullptr;
    PTRC_HASH_TBL* ptrc_ = nullptr;
    SVC_HASH_TBL* svc_ = nullptr;
    int max_que_cnt_ = 0;
};

// Raises semaphore VARNIX_PTRC_SEM_AGENT of the process-thread table's set
// `semid` from 0 to 1 with SEM_UNDO, without waiting, in one operation: the
// token of the running collector, which the kernel takes back when its holder
// ends.  A collector that creates the objects takes it before its last object
// exists.  0, or -1 with errno (EAGAIN: another process holds it).
int take_agent_token(int semid);

// Removes the ids of a crashed or finished collector (async-signal-safe).
void remove_ids(const HostObjects::Ids& ids);
// The ids of the objects that exist under the keys of a collector with
// `max_que_cnt` queues (-1 where none does); nothing is attached or changed.
HostObjects::Ids ids_of(const Keys& keys, int max_que_cnt);

}  // namespace varnix::collector
