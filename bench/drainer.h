// The collector's side of a benchmark: one thread that keeps every queue of a
// collector empty, so that the entries under measurement never meet a full
// queue, and counts what it received, so that a benchmark can tell how many
// records its calls really sent.
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstdint>

#include "kit/collector.h"

namespace varnix::bench {

class Drainer {
public:
    explicit Drainer(const kit::Collector& collector) : collector_(collector) {}
    ~Drainer() { stop(); }
    Drainer(const Drainer&) = delete;
    Drainer& operator=(const Drainer&) = delete;

    // 0, or -1 when the thread cannot be started.
    int start();
    // Stops and joins the thread.  Safe to call again.
    void stop();

    // Records received since the start.
    uint64_t received() const { return received_.load(std::memory_order_acquire); }
    // Returns once every record sent before the call has been received and
    // counted.  Only while the thread runs.
    void settle() const;

private:
    static void* run(void* self);
    // One pass that empties every queue (full) or those that had records in
    // the last pass; true when it received anything.
    bool sweep(bool full);

    const kit::Collector& collector_;
    std::atomic<uint64_t> received_{0};
    bool active_[VARNIX_MAX_QUE_CNT] = {};
    // Full passes that found every queue empty: a pass that starts after a sender
    // finished and finds nothing proves that sender's records were counted.
    std::atomic<uint64_t> idle_sweeps_{0};
    std::atomic<bool> stop_{false};
    pthread_t thread_{};
    bool running_ = false;
};

}  // namespace varnix::bench
