// Keeps the collector's queues empty while threads of a test send: the
// kernel's default queue holds only about twenty records.
#pragma once

#include <atomic>
#include <chrono>
#include <thread>

#include "support/test_ipc.h"

namespace varnix::test {

class Drainer {
public:
    Drainer()
        : th_([this] {
              while (!stop_.load())
                  if (TestIpc::get().collector().drain() == 0) std::this_thread::sleep_for(std::chrono::microseconds(200));
          }) {}
    ~Drainer() {
        stop_.store(true);
        th_.join();
    }
    Drainer(const Drainer&) = delete;
    Drainer& operator=(const Drainer&) = delete;

private:
    std::atomic<bool> stop_{false};
    std::thread th_;
};

}  // namespace varnix::test
