// varnix-reclaim-bench [ENTRIES] [THREADS]: how long the agent's reclaim
// holds the process-thread table semaphore, against a collector created for
// this run.  Child processes register ENTRIES entries (8,000 by default) and
// end without releasing them, so the kernel drops their owner tokens; then,
// while THREADS threads of this process (4) keep starting, registering (each
// a fresh entry, under the same semaphore) and ending, the agent's reclaim
// runs twice as the agent runs it: the first pass takes the dead processes'
// entries, the second those the churning threads' process released.
// Reports per pass the entries returned, the batches, the longest hold and
// the pass's time, and the longest a churning thread's registration took
// (the library waits at most 50 ms for the semaphore before it gives 116).
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <thread>
#include <vector>

#include "collector/reclaim.h"
#include "kit/session.h"
#include "core/clock.h"
#include "varnix.h"

namespace {

constexpr int kPerProcess = 2'000;  // ids 1..2000 fill no bucket of 10 contexts

std::atomic<bool> stop{false};
std::atomic<int64_t> longest_registration_us{0};
std::atomic<long> registrations{0}, refused{0};

// A call that registers the calling thread and sends nothing.
int32_t register_as(int32_t tid) { return TRAN_SQL_ID(tid, "BENCH", -1); }

// A child that registers `count` ids and ends without TRAN_DONE: its entries
// stay registered with their owner tokens gone.
pid_t leave_entries(int count) {
    std::fflush(nullptr);
    const pid_t pid = fork();
    if (pid != 0) return pid;
    int ok = 0;
    if (TRAN_INIT() == 0)
        for (int32_t tid = 1; tid <= count; ++tid) ok += register_as(tid) == 0;
    _exit(ok == count ? 0 : 1);
}

void churn() {
    while (!stop.load(std::memory_order_relaxed)) {
        std::thread([] {
            const int64_t from = varnix::monotonic_us();
            const int32_t rc = register_as(-1);
            const int64_t took = varnix::monotonic_us() - from;
            int64_t seen = longest_registration_us.load();
            while (took > seen && !longest_registration_us.compare_exchange_weak(seen, took)) {
            }
            ++(rc == 0 ? registrations : refused);
        }).join();
    }
}

void report(const char* what, const varnix::agent::Reclaimed& r, int64_t pass_us) {
    std::printf("%-8s returned %5d (released %d, holder gone %d, lost %d) in %3d batches; longest hold %6.3f ms; "
                "pass %7.3f ms%s\n",
                what, r.released + r.orphaned + r.lost, r.released, r.orphaned, r.lost, r.batches,
                static_cast<double>(r.longest_hold_us) / 1000, static_cast<double>(pass_us) / 1000,
                r.sem_busy ? " (semaphore busy: pass cut short)" : "");
}

}  // namespace

int main(int argc, char** argv) {
    const int entries = argc > 1 ? std::atoi(argv[1]) : 8'000;
    const int threads = argc > 2 ? std::atoi(argv[2]) : 4;
    if (entries < 0 || entries > VARNIX_TBL_ENTRIES - 100 || threads < 0) {
        std::fprintf(stderr, "usage: varnix-reclaim-bench [ENTRIES below %d] [THREADS]\n", VARNIX_TBL_ENTRIES - 100);
        return 2;
    }
    varnix::kit::Session* s = varnix::kit::Session::start("varnix-reclaim-bench");
    if (!s) return 1;
    int failed = 0;
    for (int left = entries; left > 0; left -= kPerProcess) {
        int status = 0;
        const pid_t pid = leave_entries(std::min(left, kPerProcess));
        failed += pid < 0 || waitpid(pid, &status, 0) != pid || !WIFEXITED(status) || WEXITSTATUS(status) != 0;
    }
    if (failed || TRAN_INIT() != 0) {
        std::fprintf(stderr, "varnix-reclaim-bench: registering the entries failed\n");
        s->remove();
        return 1;
    }
    PTRC_HASH_TBL& tbl = *s->collector().ptrc();
    const int semid = s->collector().ids().ptrc_sem;
    std::printf("%d entries of ended processes, %d threads churning\n", entries, threads);
    std::vector<std::thread> churning;
    for (int i = 0; i < threads; ++i) churning.emplace_back(churn);
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    for (const char* pass : {"first", "second"}) {
        const int64_t from = varnix::monotonic_us();
        const varnix::agent::Reclaimed r = varnix::agent::reclaim_entries(tbl, semid);
        report(pass, r, varnix::monotonic_us() - from);
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
    }
    stop = true;
    for (std::thread& t : churning) t.join();
    std::printf("churn: %ld registrations, %ld refused; longest registration %.3f ms\n", registrations.load(),
                refused.load(), static_cast<double>(longest_registration_us.load()) / 1000);
    TRAN_DONE();
    th_join_thread();
    s->remove();
    return 0;
}
