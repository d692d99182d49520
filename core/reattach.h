// Following a collector that removes its objects and creates them anew while
// the process runs (an agent stopped and started again, objects removed by
// hand): the process takes up the new control block, tables and semaphores,
// as it takes up a re-created queue, without a restart.
#pragma once

#include <pthread.h>
#include <sys/types.h>

#include <atomic>
#include <cstdint>

#include "varnix_collector.h"

namespace varnix {

// The collector's IPC keys, as the configuration gives them.
struct IpcKeys {
    key_t que_info, svc_shm, svc_sem, ptrc_shm, ptrc_sem, msgq;
};

// One attachment of the process-thread table with its semaphore set, and the
// generation it was published as.
struct PtrcAttach {
    PTRC_HASH_TBL* tbl;
    int32_t shmid;
    int32_t semid;
    uint32_t gen;
};

// tran_init, under the process lock, once gvar holds what it attached: the
// keys to look up again, and the table attachment of the generation in use.
void note_attachments(const IpcKeys& keys);

// The generation of the process-thread table attachment in use, raised by each
// switch.  Sequentially consistent, like init_mark: read after the entry gate
// counted the caller.
[[gnu::visibility("hidden")]] extern std::atomic<uint32_t> table_generation;
inline uint32_t tables_gen() { return table_generation.load(); }
// The attachment of the generation in use.  It stays attached while the
// caller is inside the entry gate or holds the process lock.
PtrcAttach current_ptrc();

// For a caller inside the entry gate whose IPC object has been removed: looks,
// at most every 100 ms, whether the collector has created its objects anew,
// and if so takes them up.  Never waits.
void look_for_new_collector();

// The process lock: TRAN_INIT and TRAN_DONE (start/start_stop.cpp) run under
// it, and so does retiring a replaced table.
[[gnu::visibility("hidden")]] extern pthread_mutex_t main_lock;

// The writer thread's share in following a collector that created its
// objects anew, between records: a look once a second, and the detaching of
// a replaced process-thread table once no caller can still use it.  Never
// waits.
void follow_collector();

// True while a replaced process-thread table is still attached.
bool old_table_pending();
// Detaches the replaced table once every stripe of the entry gate has been
// seen without callers since the switch.  The caller holds the process lock.
// Never waits.
void retire_old_table();
// Detaches every table attachment still held besides `detached` (already
// detached by the caller) and forgets them: the stop, and a forked child.
void drop_table_attachments(const void* detached);

}  // namespace varnix
