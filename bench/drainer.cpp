#include "bench/drainer.h"

#include <sched.h>
#include <sys/msg.h>
#include <time.h>

namespace varnix::bench {
namespace {

// After this many empty passes in a row the drainer naps, so that it does not
// burn a core between benchmarks.  While records flow it never sleeps: a
// default-sized queue holds about 20 records, a few microseconds of sending.
constexpr int kIdleBeforeNap = 4096;
constexpr timespec kNap{0, 200'000};
// While records flow, the queues that had none in the last pass are looked at
// only every this many passes: a receive from an empty queue costs about as
// much as a send, and a drainer that spends that on each idle queue falls
// behind a sender.
constexpr unsigned kFullSweepEvery = 8;

// Only the type word is copied out: the benchmarks count records, they do
// not read them, and a receive that costs less than a send is what lets one
// drainer keep up with a sender that does nothing else.
struct Head {
    long mtype;
    char text[1];
};

// Empties one queue; the number of records received.
uint64_t empty_queue(int qid) {
    Head head;
    uint64_t got = 0;
    while (msgrcv(qid, &head, sizeof head.text, 0, IPC_NOWAIT | MSG_NOERROR) >= 0) ++got;
    return got;
}

}  // namespace

int Drainer::start() {
    if (running_) return 0;
    stop_.store(false);
    if (pthread_create(&thread_, nullptr, run, this) != 0) return -1;
    running_ = true;
    return 0;
}

void Drainer::stop() {
    if (!running_) return;
    stop_.store(true);
    (void)pthread_join(thread_, nullptr);
    running_ = false;
}

void Drainer::settle() const {
    // The pass under way now may have started before the caller's last send;
    // the one after it has not.
    const uint64_t seen = idle_sweeps_.load(std::memory_order_acquire);
    while (idle_sweeps_.load(std::memory_order_acquire) < seen + 2) sched_yield();
}

bool Drainer::sweep(bool full) {
    uint64_t got = 0;
    for (int q = 0; q < collector_.max_que_cnt(); ++q) {
        if (!full && !active_[q]) continue;
        const uint64_t n = empty_queue(collector_.msgq_id(q));
        active_[q] = n != 0;
        got += n;
    }
    if (got) received_.fetch_add(got, std::memory_order_release);
    return got != 0;
}

void* Drainer::run(void* self) {
    Drainer& d = *static_cast<Drainer*>(self);
    int idle = 0;
    bool full = true;
    for (unsigned n = 1; !d.stop_.load(std::memory_order_relaxed); ++n) {
        if (d.sweep(full)) {
            idle = 0;
            full = n % kFullSweepEvery == 0;
            continue;
        }
        if (!full) {
            full = true;
            continue;
        }
        d.idle_sweeps_.fetch_add(1, std::memory_order_release);
        if (++idle >= kIdleBeforeNap) (void)nanosleep(&kNap, nullptr);
    }
    return nullptr;
}

}  // namespace varnix::bench
