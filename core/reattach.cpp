// Following a re-created collector.
//
// Detection.  An operation on a removed object fails with EIDRM or EINVAL (a
// send, a semaphore wait), and the writer thread looks once a second besides.
// One caller per 100 ms (look_throttle) looks the keys up again, without the
// create flag; a block or semaphore whose key names another id now has been
// created anew.  `state` keeps it to one switcher at a time (kIdle to
// kSwitching by compare-and-swap), and no switch starts while a replaced
// table is still attached.  The look-up takes nothing up before every block
// and semaphore is there; the collector creates a table's semaphore only
// after the table is ready.
//
// The control block and the service table are taken up in place: shmat with
// SHM_REMAP puts the new block where the old one is mapped, in one step, so
// that every pointer into them (the field pointers of gvar, a context's
// service entry) reads the new block from then on, and the old one is
// detached by the same step.  Callers only read them, or count drops
// atomically, and every field is a switch or a counter of its own: a call
// that reads some fields before and some after the step is no worse off than
// one that runs while the collector changes a switch, and walks of the
// service table are bounded and range-checked.  Only a block of the size of
// the one it replaces takes its place.
//
// The process-thread table cannot be taken up in place: each registered
// thread writes its own entry through a pointer, without the semaphore, and a
// thread inside a call while the tables change would write into whatever
// entry of the new table has its number.  The new table is attached beside
// the old one, into the spare one of two slots, and published by raising
// table_generation (sequentially consistent).  A context registered under an
// older generation registers again in the new table on its thread's next
// call (context/mtr_cxt.cpp); nothing reads an entry of an older generation.
//
// Retiring.  A caller that read the generation before the switch may still
// use the old table, and it is inside the entry gate until it leaves.
// Callers count themselves at the gate before they read the generation, and
// it is raised before the gate's counts are swept (core/entry_gate.h): a
// count seen at zero after the switch holds no caller of the old generation,
// and whoever enters it later sees the new one.  Once every count has been
// seen at zero (the writer thread looks between records), or
// when the stop has seen every caller out, the old table is detached and its
// slot emptied.  Nobody waits for that: a thread that never leaves keeps the
// old table attached, and the process takes up no further re-creation
// meanwhile.
//
// Locks.  The process lock of TRAN_INIT and TRAN_DONE guards the slot in use
// and the retiring; the switcher writes only the spare slot, and only in
// kSwitching, which it enters (acquire) from the kIdle that the last
// retirement released.
#include "core/reattach.h"

#include <sys/ipc.h>
#include <sys/shm.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <utility>

#include "core/entry_gate.h"
#include "core/gvar.h"
#include "core/ipc.h"
#include "core/log_printf.h"
#include "core/status.h"
#include "core/throttle.h"

namespace varnix {

std::atomic<uint32_t> table_generation{0};
pthread_mutex_t main_lock = PTHREAD_MUTEX_INITIALIZER;

namespace {

enum State : int { kIdle, kSwitching, kRetiring };

constexpr int64_t kLookEveryUs = 100'000;

constexpr PtrcAttach kNoTable{nullptr, -1, -1, 0};

IpcKeys keys;
PtrcAttach slots[2] = {kNoTable, kNoTable};  // slots[table_generation & 1] is in use
std::atomic<int> state{kIdle};
GateSweep retire_sweep;  // started at the switch; kRetiring only
Throttle look_throttle{kLookEveryUs};
// The ids last refused, so that each refusal is reported once; switcher only.
int32_t refused_que_info = -1, refused_svc = -1, refused_ptrc = -1;

// The ids of the collector's blocks and semaphores: as its keys name them
// now, or as attached.
struct Ids {
    int32_t que_info, svc_shm, svc_sem, ptrc_shm, ptrc_sem;
    bool operator==(const Ids&) const = default;
    bool complete() const { return que_info >= 0 && svc_shm >= 0 && svc_sem >= 0 && ptrc_shm >= 0 && ptrc_sem >= 0; }
};

Ids look_up() {
    return Ids{find_shm(keys.que_info, sizeof(TRAN_LOGF_QUE_INFO)),
               find_shm(keys.svc_shm, sizeof(SVC_HASH_TBL)), create_sem(keys.svc_sem, 1),
               find_shm(keys.ptrc_shm, sizeof(PTRC_HASH_TBL)), create_sem(keys.ptrc_sem, 1)};
}

Ids attached() {
    const PtrcAttach& t = slots[table_generation.load(std::memory_order_relaxed) & 1];
    return Ids{__atomic_load_n(&gvar.que_info_shmid, __ATOMIC_RELAXED),
               __atomic_load_n(&gvar.svc_hash_shmid, __ATOMIC_RELAXED),
               __atomic_load_n(&gvar.svc_hash_semid, __ATOMIC_RELAXED), t.shmid, t.semid};
}

void report_refused(const char* name, int32_t id, int32_t& refused, const char* why) {
    if (std::exchange(refused, id) != id)
        log_printf("<!> %s re-created (shmid %d), not re-attached: %s", name, id, why);
}

// Puts block `id` where block `old_id` is attached at `addr`, in one step.
bool take_up_in_place(void* addr, int32_t old_id, int32_t id, const char* name, int32_t& refused) {
    shmid_ds was{}, now{};
    if (shmctl(old_id, IPC_STAT, &was) != 0 || shmctl(id, IPC_STAT, &now) != 0 || was.shm_segsz != now.shm_segsz) {
        report_refused(name, id, refused, "not the size of the attached one");
        return false;
    }
    if (shmat(id, addr, SHM_REMAP) != addr) {
        report_refused(name, id, refused, std::strerror(errno));
        return false;
    }
    return true;
}

// Attaches the new process-thread table into the spare slot and publishes it.
bool take_up_table(const Ids& now) {
    const uint32_t g = table_generation.load(std::memory_order_relaxed);
    void* addr = shmat(now.ptrc_shm, nullptr, 0);
    if (addr == reinterpret_cast<void*>(-1)) {
        report_refused("PTRC_HASH_TBL", now.ptrc_shm, refused_ptrc, std::strerror(errno));
        return false;
    }
    slots[(g + 1) & 1] = PtrcAttach{static_cast<PTRC_HASH_TBL*>(addr), now.ptrc_shm, now.ptrc_sem, g + 1};
    __atomic_store_n(&gvar.ptrc_hash_tbl, static_cast<PTRC_HASH_TBL*>(addr), __ATOMIC_RELAXED);
    __atomic_store_n(&gvar.ptrc_hash_shmid, now.ptrc_shm, __ATOMIC_RELAXED);
    __atomic_store_n(&gvar.ptrc_hash_semid, now.ptrc_sem, __ATOMIC_RELAXED);
    table_generation.store(g + 1);  // sequentially consistent: see Retiring
    return true;
}

// Takes up whatever `now` names anew; true when a replaced table is left to
// retire.  The caller is the one switcher.
bool switch_over(const Ids& was, const Ids& now) {
    const bool table = (now.ptrc_shm != was.ptrc_shm || now.ptrc_sem != was.ptrc_sem) && take_up_table(now);
    if (now.que_info != was.que_info &&
        take_up_in_place(gvar.que_info, was.que_info, now.que_info, "TRAN_LOGF_QUE_INFO", refused_que_info))
        __atomic_store_n(&gvar.que_info_shmid, now.que_info, __ATOMIC_RELAXED);
    if (now.svc_shm != was.svc_shm &&
        take_up_in_place(gvar.svc_hash_tbl, was.svc_shm, now.svc_shm, "SVC_HASH_TBL", refused_svc))
        __atomic_store_n(&gvar.svc_hash_shmid, now.svc_shm, __ATOMIC_RELAXED);
    __atomic_store_n(&gvar.svc_hash_semid, now.svc_sem, __ATOMIC_RELAXED);  // never taken here: only its id
    const Ids is = attached();
    if (is == was) return false;
    look_up_queues();
    log_printf("(I) collector objects re-created, re-attached: TRAN_LOGF_QUE_INFO shmid %d->%d, SVC_HASH_TBL shmid "
               "%d->%d semid %d->%d, PTRC_HASH_TBL shmid %d->%d semid %d->%d",
               was.que_info, is.que_info, was.svc_shm, is.svc_shm, was.svc_sem, is.svc_sem, was.ptrc_shm, is.ptrc_shm,
               was.ptrc_sem, is.ptrc_sem);
    return table;
}

void detach_old(PtrcAttach& old) {
    if (shmdt(old.tbl) == 0)
        log_printf("(I) replaced ptrc_hash_tbl detached (shmid %d)", old.shmid);
    else
        log_printf("<!> replaced ptrc_hash_tbl shmdt error %d", errno);
    old = kNoTable;
}

}  // namespace

void note_attachments(const IpcKeys& k) {
    keys = k;
    const uint32_t g = table_generation.load(std::memory_order_relaxed);
    slots[g & 1] = PtrcAttach{gvar.ptrc_hash_tbl, gvar.ptrc_hash_shmid, gvar.ptrc_hash_semid, g};
}

PtrcAttach current_ptrc() { return slots[table_generation.load() & 1]; }

void look_for_new_collector() {
    if (gvar.init_mark.load() != kInitMarkReady || !look_throttle.pass()) return;
    int idle = kIdle;
    if (!state.compare_exchange_strong(idle, kSwitching, std::memory_order_acquire)) return;
    const Ids was = attached(), now = look_up();
    const bool retiring = now.complete() && now != was && switch_over(was, now);
    if (retiring) (void)retire_sweep.start();  // a failed barrier keeps the old table attached
    state.store(retiring ? kRetiring : kIdle, std::memory_order_release);
}

void follow_collector() {
    static Throttle look_period{1'000'000};
    if (look_period.pass()) {
        const EntryGate gate;
        look_for_new_collector();  // it reads init_mark after the gate counted the writer
    }
    if (!old_table_pending() || pthread_mutex_trylock(&main_lock) != 0) return;
    retire_old_table();
    (void)pthread_mutex_unlock(&main_lock);  // ours, locked just now
}

bool old_table_pending() { return state.load(std::memory_order_acquire) == kRetiring; }

void retire_old_table() {
    if (!old_table_pending()) return;
    if (!retire_sweep.done()) return;
    detach_old(slots[(table_generation.load(std::memory_order_relaxed) + 1) & 1]);
    state.store(kIdle, std::memory_order_release);
}

void drop_table_attachments(const void* detached) {
    for (PtrcAttach& a : slots) {
        if (a.tbl && a.tbl != detached)
            detach_old(a);
        else
            a = kNoTable;
    }
    state.store(kIdle, std::memory_order_release);
}

}  // namespace varnix
