// Collector kit: creates and owns what the collector agent owns (the control
// block, the two shared tables with their semaphores and the message queues),
// receives trace records and removes everything it created.
#pragma once

#include <sys/types.h>

#include <string>

#include "varnix_collector.h"

namespace varnix::kit {

// IPC keys of one collector.
struct Keys {
    key_t que_info;
    key_t svc_shm;
    key_t svc_sem;
    key_t ptrc_shm;
    key_t ptrc_sem;
    key_t msgq;  // base: queue i has key msgq + i
};

// The project's own key range: each process gets a block of 32 keys derived
// from its pid, so that concurrent test and demo processes never meet.
inline constexpr key_t kKeyRangeBase = 0x40000000;
inline constexpr int kKeysPerPid = 32;
inline constexpr pid_t kMaxPid = 1 << 22;

Keys keys_for_pid(pid_t pid);
// The pid whose block holds `key`, or -1 when the key is outside the range.
pid_t owner_of_key(key_t key);

// Settings of a configuration file, as the kit writes them.
struct AgentConfig {
    Keys keys;
    std::string log_home;       // COMMON LOG_HOME
    std::string tong_log_home;  // COMMON TONG_LOG_HOME
    int que_cnt = 4;
    int max_que_cnt = 4;
    std::string log_flag_set = "SEVBCIXQ";
    std::string fst_err_rc_set = "0,0";  // tokens "code,verdict"
    int svc_filtering = 0;
    int call_trc_depth = 10;
    long call_trc_limit = 0;
    long dbio_trc_limit = 0;
    long sql_trc_limit = 0;
    int idle_thread_release = 30;  // first token of IDLE_THREAD_RELEASE
    int infinite_loop_base_cnt = 1000;
    int default_timeout_sec = 60;
    int gid_rng_pos = 0;
    int gid_rng_siz = 30;
    std::string dbio_func = "0 DBIO_";
};

std::string config_text(const AgentConfig& conf);
bool write_file(const std::string& path, const std::string& text);

// A new message queue of the kind the collector creates (exclusive, 0666),
// owned by the caller, who removes it with remove_queue; the id, or -1 with a
// message on standard error.  Like every object the kit creates, it is listed
// in this process's manifest (collector/manifest.h) until it is removed.
int create_queue(key_t key);
// Removes a queue made by create_queue; 0, or -1 with errno.
int remove_queue(int id);

class Collector {
public:
    Collector() = default;
    ~Collector() { remove(); }
    Collector(const Collector&) = delete;
    Collector& operator=(const Collector&) = delete;

    // Creates every object the configuration file names; 0, or -1 with a
    // message on standard error (objects created so far are removed).
    int create(const char* cfg_path);
    // The ids of a collector's objects (-1: none), also for a crash handler
    // that must remove them without the kit.
    struct Ids {
        int que_info_shm = -1, svc_shm = -1, svc_sem = -1, ptrc_shm = -1, ptrc_sem = -1;
        int msgq[VARNIX_MAX_QUE_CNT] = {-1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1};
    };

    // Takes over the objects of `ids`, which another collector created (and
    // the caller checked), with the first `max_que_cnt` queues: attaches the
    // three blocks as they are, and remove() removes them later as its own.
    // 0, or -1 with a message on standard error (nothing is taken over).
    int adopt(const Ids& ids, int max_que_cnt);
    // Removes every object this collector created or adopted; the number it
    // could not remove (each reported on standard error).  Safe to call again.
    int remove();

    TRAN_LOGF_QUE_INFO* que_info() const { return que_info_; }
    PTRC_HASH_TBL* ptrc() const { return ptrc_; }
    SVC_HASH_TBL* svc() const { return svc_; }
    int max_que_cnt() const { return max_que_cnt_; }
    int msgq_id(int q) const { return ids_.msgq[q]; }

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

    const Ids& ids() const { return ids_; }

private:
    int create_que_info(const char* cfg);
    int create_tables(const char* cfg);
    int create_queues(const char* cfg);

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
void remove_ids(const Collector::Ids& ids);
// The ids of the objects that exist under the keys of a collector with
// `max_que_cnt` queues (-1 where none does); nothing is attached or changed.
Collector::Ids ids_of(const Keys& keys, int max_que_cnt);

// Lists a service in the service table as the collector does: a free entry
// appended to the chain of its id's bucket, with its own record-class switches
// (VARNIX_FLAG_*) and call-trace limits.  Null when the table is full.
struct ServiceListing {
    std::string svc_id;  // up to 16 characters
    uint8_t flags = 0xFF;
    int32_t call_trc_depth = 0;
    int64_t call_trc_limit = 0, dbio_trc_limit = 0, sql_trc_limit = 0;
};
SVC_HASH* add_service(SVC_HASH_TBL& tbl, const ServiceListing& listing);

}  // namespace varnix::kit
