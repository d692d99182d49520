// Threads of a concurrency test.  None ends before all have finished their
// work: the slot of a thread that has ended is reclaimed by the next newcomer
// of its bucket, which is safe (the kernel has seen the thread go) but an
// ordering the race detector cannot see.
#pragma once

#include <latch>
#include <thread>
#include <vector>

namespace varnix::test {

class ThreadGroup {
public:
    // Starts `n` threads running body(t) for t = 0 .. n-1.
    template <typename Body>
    ThreadGroup(int n, Body body) : done_(n) {
        for (int t = 0; t < n; ++t)
            threads_.emplace_back([this, body, t] {
                body(t);
                done_.arrive_and_wait();
            });
    }
    ~ThreadGroup() { join(); }
    ThreadGroup(const ThreadGroup&) = delete;
    ThreadGroup& operator=(const ThreadGroup&) = delete;

    void join() {
        for (std::thread& th : threads_)
            if (th.joinable()) th.join();
    }

private:
    std::latch done_;
    std::vector<std::thread> threads_;
};

}  // namespace varnix::test
