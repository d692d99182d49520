// Interrupts a thread with a signal while it sleeps inside a given system
// call, so that a test can check that a wrapper goes back to waiting instead
// of returning EINTR.  System V waits are never restarted by the kernel, so
// every delivery makes the call return EINTR once.
#pragma once

#include <pthread.h>
#include <signal.h>
#include <time.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "support/test_ipc.h"

namespace varnix::test {

class Interrupter {
public:
    // Installs a handler for SIGUSR1 that does nothing but interrupt; the
    // previous action comes back with the destructor.
    Interrupter() {
        struct sigaction sa {};
        sa.sa_handler = [](int) {};
        sigemptyset(&sa.sa_mask);
        installed_ = sigaction(SIGUSR1, &sa, &old_) == 0;
    }
    ~Interrupter() {
        if (installed_) sigaction(SIGUSR1, &old_, nullptr);
    }
    Interrupter(const Interrupter&) = delete;
    Interrupter& operator=(const Interrupter&) = delete;

    // Signals `thread` (kernel id `tid`) `times` times, each time once it
    // sleeps in one of the system calls `nrs`, and waits until it sleeps there
    // again after having woken up.  False when it was not seen going back to
    // sleep there.  The handler may run late (a sanitizer can defer it), so
    // waking up is what shows the interruption.
    bool interrupt(pthread_t thread, pid_t tid, const std::vector<long>& nrs, int times) {
        if (!installed_) return false;
        std::string task = "/proc/self/task/" + std::to_string(tid);
        long switches = -1;
        if (!wait_for([&] { return asleep_in(task, nrs, switches); })) return false;
        for (int i = 0; i < times; ++i) {
            long before = switches;
            if (pthread_kill(thread, SIGUSR1) != 0) return false;
            if (!wait_for([&] { return asleep_in(task, nrs, switches) && switches > before; })) return false;
        }
        return true;
    }

private:
    // Polls `done` for up to ten seconds.
    template <typename Done>
    static bool wait_for(Done done) {
        const timespec step{0, 1'000'000};
        for (int ms = 0; ms < 10'000; ++ms) {
            if (done()) return true;
            nanosleep(&step, nullptr);
        }
        return false;
    }

    // Every time a thread goes to sleep, its voluntary_ctxt_switches grows.
    static long sleeps_of(const std::string& task) {
        std::string status = read_file(task + "/status");
        const std::string key = "\nvoluntary_ctxt_switches:";
        size_t at = status.find(key);
        return at == std::string::npos ? -1 : std::strtol(status.c_str() + at + key.size(), nullptr, 10);
    }

    // True when the task sleeps in one of `nrs` (its syscall file starts with
    // the call's number, or says "running"); `sleeps` gets its sleep count.
    static bool asleep_in(const std::string& task, const std::vector<long>& nrs, long& sleeps) {
        long first = sleeps_of(task);
        std::string s = read_file(task + "/syscall");
        char* end = nullptr;
        long nr = std::strtol(s.c_str(), &end, 10);
        if (end == s.c_str() || first < 0 || sleeps_of(task) != first) return false;
        for (long want : nrs) {
            if (nr == want) {
                sleeps = first;
                return true;
            }
        }
        return false;
    }

    struct sigaction old_ {};
    bool installed_ = false;
};

}  // namespace varnix::test
