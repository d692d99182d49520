// Full-message log writer.
//
// Ownership.  The data file, its path, the date and the day belong to the
// writer thread alone.  A writer is created only after the previous one has
// been joined, so they pass from one writer to the next through that join.
// nfailcount is shared with the capturing threads, which count under
// tong_lock; every access to it is an __atomic one, and the writer's reset at
// each open is a release store that does not take tong_lock.
//
// The handle.  `writer` is guarded by th_lock, and so are the writer's reads
// of the process block (its path).  Its thread is joined exactly
// once, by whoever joins first (the host's th_join_thread or the next
// start_th_job), and never cancelled after that join.  A joiner first waits on
// th_ended, with th_lock released, until the writer has left its loop, so the
// host may cancel from one thread while another one is joining; pthread_join
// itself then runs under th_lock and returns at once.  The writer takes
// th_lock only to compose its path and to report that it has left its loop,
// never while it waits or writes.
//
// One consumer.  A writer runs while init_mark is 1111 and th_generation still
// holds the value it was started for.  stop_th_job advances the generation,
// under th_lock, before it joins, so a writer of an earlier initialization
// stops within one record or one idle step even when init_mark is already
// back at 1111, and a start that a later one overtook creates nothing.  The
// stop waits a bounded time only (it runs under TRAN_INIT's lock): a writer
// stuck in a write keeps its handle, nothing new is started beside it, and
// the next stop waits for it again.
//
// Idling.  With nothing to write the writer waits on idle_cv for one idle
// step.  It checks that it should go on under idle_lock, and whoever ends its
// run (TRAN_DONE, the next start) changes the state first and then signals
// under idle_lock, so the writer leaves at once instead of after its step.
//
// Between records the writer also follows a collector that created its
// objects anew (core/reattach.h, follow_collector): it looks once a second
// and detaches a replaced table once no caller can still use it.
//
// Cancellation is enabled only between records (before one is taken, and
// while idling), never with a record in hand.
#include "tong/th_job.h"

#include <pthread.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "core/clock.h"
#include "core/gvar.h"
#include "core/log_printf.h"
#include "core/mutex.h"
#include "core/no_cancel.h"
#include "core/reattach.h"
#include "core/status.h"
#include "tong/deffered_que.h"
#include "tong/tong_slot.h"
#include "varnix.h"

extern "C" {
int32_t nfailcount;
}

namespace varnix {
namespace {

constexpr int kPathSize = 128;  // paths of at most 127 characters
constexpr int64_t kIdleUs = 300'000;
constexpr int kNoWriter = -1;
constexpr int kStopWaitMs = 200;  // a stop runs under TRAN_INIT's lock

struct WriterHandle {
    pthread_t th;
    uint32_t generation;  // the generation th was started for
    bool set;             // th is a thread that has not been joined yet
    bool running;         // and it has not left its loop yet
};

pthread_mutex_t th_lock = PTHREAD_MUTEX_INITIALIZER;
pthread_cond_t th_ended = PTHREAD_COND_INITIALIZER;
WriterHandle writer;
std::atomic<uint32_t> th_generation;
pthread_mutex_t idle_lock = PTHREAD_MUTEX_INITIALIZER;
pthread_cond_t idle_cv = PTHREAD_COND_INITIALIZER;

// Writer thread only.
char date_str[32];
int cur_day;
bool date_known;
std::FILE* tong_fp;
char tong_path[kPathSize];

bool get_today(std::tm& tm) {
    timeval tv{};
    if (gettimeofday(&tv, nullptr) != 0) return false;
    return localtime_r(&tv.tv_sec, &tm) != nullptr;
}

// True when the local day changed since the last call; the first call only
// notes today.
bool get_date() {
    std::tm tm{};
    if (!get_today(tm)) return false;
    if (date_known && tm.tm_yday == cur_day) return false;
    bool changed = date_known;
    std::strftime(date_str, sizeof date_str, "%Y%m%d", &tm);
    cur_day = tm.tm_yday;
    date_known = true;
    return changed;
}

// False when there is no date yet or the path would not fit.
bool compose_path() {
    if (!date_known) return false;
    const char* name = gvar.cont_nm[0] != '\0' ? gvar.cont_nm : gvar.proc_nm;
    int n = std::snprintf(tong_path, sizeof tong_path, "%s/tong_log_%s_%s_%d.dat", tong_log_home_dir, date_str, name,
                          static_cast<int>(getpid()));
    return n > 0 && n < kPathSize;
}

// The path is read from the process block under th_lock, and only while this
// writer is the current one: a TRAN_INIT that gave up waiting for an old
// writer rewrites the block without waiting any longer, and an old writer
// reads nothing of it from then on.
bool compose_current_path(uint32_t generation) {
    MutexGuard guard(th_lock);
    return guard.owns() && th_generation.load(std::memory_order_acquire) == generation && compose_path();
}

void open_tong_file(uint32_t generation) {
    if (tong_fp) {
        (void)std::fclose(tong_fp);  // every record was flushed when written; nothing is left to lose
        tong_fp = nullptr;
    }
    if (compose_current_path(generation)) {
        // Files are created 0666: the collector and its tools run as other users.
        mode_t old = umask(0);
        tong_fp = std::fopen(tong_path, "ae");
        umask(old);
        // Unbuffered, so that the write meets the file itself and its item
        // count tells whether the record got there.  Should this fail, the
        // flush after each record still writes it out.
        if (tong_fp) (void)std::setvbuf(tong_fp, nullptr, _IONBF, 0);
    }
    // Release: whoever sees the reset sees that this open is done with the
    // home directory.
    __atomic_store_n(&nfailcount, 0, __ATOMIC_RELEASE);
}

void append_record(const TongSlot& rec) {
    size_t items = std::fwrite(rec.buf, static_cast<size_t>(rec.len), 1, tong_fp);
    bool flushed = std::fflush(tong_fp) == 0;
    if (items != 1 || !flushed)
        std::fprintf(stderr, "[Varnix] TONG_LOG fwrite error %d [fd:%d, %s]\n", static_cast<int>(items),
                     fileno(tong_fp), tong_path);
}

void store_record(const DeferredSlot& slot, uint32_t generation) {
    if (slot.kind != kDeferredKindTong) return;  // not ours to interpret, nor to free
    TongSlot rec;
    std::memcpy(&rec, slot.payload, sizeof rec);
    if (rec.len > 0 && rec.buf) {
        if (get_date() || !tong_fp) open_tong_file(generation);
        if (tong_fp) append_record(rec);
    }
    std::free(rec.buf);
}

// The previous state.  Fails only for an unknown state, and every caller
// passes a valid one.
int set_cancel(int state) {
    int old = PTHREAD_CANCEL_ENABLE;
    (void)pthread_setcancelstate(state, &old);
    return old;
}

bool keep_running(uint32_t generation);

// The monotonic time `us` from now, for the bounded waits.
timespec deadline_in_us(int64_t us) {
    const int64_t until = monotonic_us() + us;
    return timespec{static_cast<time_t>(until / 1'000'000), static_cast<long>(until % 1'000'000) * 1000};
}

void unlock_idle(void*) { (void)pthread_mutex_unlock(&idle_lock); }

// One idle step, cut short by wake_th_job.  A cancellation point.
void idle(uint32_t generation) {
    if (pthread_mutex_lock(&idle_lock) != 0) return;
    pthread_cleanup_push(unlock_idle, nullptr);
    if (keep_running(generation)) {
        const timespec ts = deadline_in_us(kIdleUs);
        (void)pthread_cond_clockwait(&idle_cv, &idle_lock, CLOCK_MONOTONIC, &ts);  // a time-out is the idle step
    }
    pthread_cleanup_pop(1);
}

// The writer's only cancellation point: before a record is taken, and while
// idling.
const DeferredSlot* next_record(uint32_t generation) {
    set_cancel(PTHREAD_CANCEL_ENABLE);
    pthread_testcancel();
    const DeferredSlot* slot = get_deffered_que();
    if (!slot) idle(generation);
    set_cancel(PTHREAD_CANCEL_DISABLE);
    return slot;
}

bool keep_running(uint32_t generation) {
    return gvar.init_mark.load(std::memory_order_acquire) == kInitMarkReady &&
           th_generation.load(std::memory_order_acquire) == generation;
}

// Runs when the writer leaves its loop, also by cancellation.
void writer_left(void*) {
    if (pthread_mutex_lock(&th_lock) != 0) return;
    writer.running = false;
    (void)pthread_cond_broadcast(&th_ended);
    (void)pthread_mutex_unlock(&th_lock);
}

// The host's interval timer must reach the host's own threads.  SIG_BLOCK
// with a valid set cannot fail.
void block_sigalrm() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGALRM);
    (void)pthread_sigmask(SIG_BLOCK, &set, nullptr);
}

void* th_job(void* arg) {
    const uint32_t generation = static_cast<uint32_t>(reinterpret_cast<uintptr_t>(arg));
    block_sigalrm();
    set_cancel(PTHREAD_CANCEL_DISABLE);
    pthread_cleanup_push(writer_left, nullptr);
    while (keep_running(generation)) {
        if (const DeferredSlot* slot = next_record(generation)) store_record(*slot, generation);
        follow_collector();
    }
    pthread_cleanup_pop(1);
    return nullptr;
}

bool still_running(uint32_t generation) { return writer.set && writer.generation == generation && writer.running; }

// Waits on th_ended until `deadline` (monotonic; none when null).
int wait_ended(const timespec* deadline) {
    if (!deadline) return pthread_cond_wait(&th_ended, &th_lock);
    return pthread_cond_clockwait(&th_ended, &th_lock, CLOCK_MONOTONIC, deadline);
}

// Waits until the writer of the handle has left its loop, then joins it.  0
// when it has been joined (here, or meanwhile by another joiner), kNoWriter
// when there is none, ETIMEDOUT when it still runs at `deadline`, else the
// pthread error.  Caller holds th_lock.
int join_writer_locked(const timespec* deadline) {
    if (!writer.set) return kNoWriter;
    const uint32_t generation = writer.generation;
    while (still_running(generation)) {
        if (int rc = wait_ended(deadline); rc != 0 && still_running(generation)) return rc;
    }
    if (!writer.set || writer.generation != generation) return 0;
    int rc = pthread_join(writer.th, nullptr);
    if (rc == 0) writer.set = false;
    return rc;
}

// Ends the current writer's run and joins it.  0 when no writer is left;
// `generation` is the one advanced to.  Caller holds th_lock.
int stop_locked(uint32_t& generation) {
    generation = th_generation.fetch_add(1, std::memory_order_acq_rel) + 1;
    wake_th_job();
    const timespec deadline = deadline_in_us(int64_t{kStopWaitMs} * 1000);
    const int rc = join_writer_locked(&deadline);
    return rc > 0 ? rc : 0;
}

// Caller holds th_lock.
int start_locked() {
    uint32_t generation = 0;
    if (int rc = stop_locked(generation); rc != 0) {
        report_stop_failure(rc);
        return rc;
    }
    // The join released th_lock while it waited, and a later start took it
    // and has put its own writer in place.
    if (th_generation.load(std::memory_order_acquire) != generation) return 0;
    pthread_t th;
    int rc = pthread_create(&th, nullptr, th_job, reinterpret_cast<void*>(static_cast<uintptr_t>(generation)));
    if (rc != 0) {
        log_printf("pthread_create error");
        return rc;
    }
    writer = WriterHandle{th, generation, true, true};
    return 0;
}

}  // namespace

void wake_th_job() {
    if (pthread_mutex_lock(&idle_lock) != 0) return;
    (void)pthread_cond_broadcast(&idle_cv);
    (void)pthread_mutex_unlock(&idle_lock);
}

void report_stop_failure(int rc) {
    if (rc == ETIMEDOUT)
        log_printf("<!> main_thread still running after %d ms: not joined, no new one started", kStopWaitMs);
    else
        log_printf("<!> cannot join main_thread.");
}

void reset_th_job_after_fork() {
    for (pthread_mutex_t* m : {&th_lock, &idle_lock}) (void)pthread_mutex_init(m, nullptr);
    for (pthread_cond_t* c : {&th_ended, &idle_cv}) (void)pthread_cond_init(c, nullptr);
    writer = WriterHandle{};  // the parent's writer does not run here
    // The parent's file is the parent's: the child writes a file of its own pid.
    if (tong_fp) (void)close(fileno(tong_fp));
    tong_fp = nullptr;
    date_known = false;
}

int start_th_job() {
    NoCancel no_cancel;
    if (int rc = pthread_mutex_lock(&th_lock); rc != 0) {
        log_printf("pthread_create error");
        return rc;
    }
    int rc = start_locked();
    (void)pthread_mutex_unlock(&th_lock);
    return rc;
}

int stop_th_job() {
    NoCancel no_cancel;
    if (int rc = pthread_mutex_lock(&th_lock); rc != 0) return rc;
    uint32_t generation = 0;
    int rc = stop_locked(generation);
    (void)pthread_mutex_unlock(&th_lock);
    return rc;
}

}  // namespace varnix

using namespace varnix;

extern "C" {

void th_join_thread(void) {
    NoCancel no_cancel;
    MutexGuard guard(th_lock);
    int rc = guard.owns() ? join_writer_locked(nullptr) : EDEADLK;
    if (rc == kNoWriter) return;
    log_printf(rc == 0 ? "(I) completed join main_thread" : "<!> cannot join main_thread.");
}

void th_cancel_thread(void) {
    NoCancel no_cancel;
    MutexGuard guard(th_lock);
    if (!guard.owns()) {
        log_printf("<!> cannot cancel main_thread.");
        return;
    }
    if (!writer.set) return;
    log_printf(pthread_cancel(writer.th) == 0 ? "(I) completed cancel main_thread" : "<!> cannot cancel main_thread.");
}

}  // extern "C"
