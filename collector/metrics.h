// The agent's figures for Prometheus, as text exposition format 0.0.4
// (README: "Metrics").
//
// Design: the draining thread is the only writer.  It counts records and
// services as it handles them, and at each tick copies the figures that live
// elsewhere (the control block's refused sends, the process-thread table's
// used count, the services in flight, the exporter's counts) into atomics of
// its own.  The serving thread only reads them, with relaxed loads: nothing
// is locked, so a scrape never holds the drain up, and a scrape never reads
// shared memory, so it cannot outlive the objects it would read.  A service
// id's series is named before the number of named series is raised (release);
// the reader loads that number with acquire, so it never sees a name being
// written.  A histogram's _count is the sum of its buckets as read, so it
// always equals the +Inf bucket; its _sum may lag a scrape by one service.
//
// At most kMaxServiceIds ids get series of their own, so that a flood of
// distinct ids cannot grow the agent without bound; the services of later
// ids are counted under the id kOtherIds.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>

#include "collector/otlp/exporter.h"
#include "collector/record_fields.h"
#include "collector/trace_ids.h"
#include "varnix_collector.h"

namespace varnix::agent {

class Metrics {
public:
    static constexpr size_t kMaxServiceIds = 1000;
    static constexpr std::string_view kOtherIds = "(other)";
    // The latency buckets' upper bounds, in microseconds and as exposed.
    static constexpr int64_t kBoundsUs[] = {1'000,     5'000,     10'000,    25'000,     50'000,
                                            100'000,   250'000,   500'000,   1'000'000,  2'500'000,
                                            5'000'000, 10'000'000, 30'000'000, 60'000'000};
    static constexpr std::string_view kBoundsText[] = {"0.001", "0.005", "0.01", "0.025", "0.05", "0.1", "0.25",
                                                       "0.5",   "1",     "2.5",  "5",     "10",   "30",  "60"};
    static constexpr size_t kBuckets = std::size(kBoundsUs) + 1;  // and +Inf

    // What the drain samples at its ticks.
    struct Sample {
        const TRAN_LOGF_QUE_INFO* que_info = nullptr;  // null before the objects exist
        const PTRC_HASH_TBL* ptrc = nullptr;
        uint64_t in_flight = 0;
        const ExportCounts* exported = nullptr;       // null when export is off
    };

    explicit Metrics(int queues);
    Metrics(const Metrics&) = delete;
    Metrics& operator=(const Metrics&) = delete;

    // The draining thread's side.
    void received(int q) { bump(queues_[q].received); }
    void malformed(int q) { bump(queues_[q].malformed); }
    // A record the span assembler took, with what it made of it: service
    // ends (with their durations when known) and errors are counted.
    void record(const Record& r, const SpanRef& ref);
    void sample(const Sample& s);

    // Any thread: the whole exposition.
    std::string render() const;

private:
    using Counter = std::atomic<uint64_t>;
    struct PerQueue {
        Counter received{0}, malformed{0}, refused{0};
    };
    struct Series {
        std::string id;  // written before the series is published, then read only
        Counter ends{0}, errors{0}, sum_us{0};
        Counter buckets[kBuckets] = {};  // each its own, not cumulative
    };
    struct Hash {
        using is_transparent = void;
        size_t operator()(std::string_view s) const { return std::hash<std::string_view>()(s); }
    };

    // One writer: a plain add, no locked instruction.
    static void bump(Counter& c, uint64_t n = 1) {
        c.store(c.load(std::memory_order_relaxed) + n, std::memory_order_relaxed);
    }
    Series& series_of(std::string_view id);
    void render_services(std::string& out) const;
    void render_queues(std::string& out) const;
    void render_gauges(std::string& out) const;

    const int queue_count_;
    PerQueue queues_[VARNIX_MAX_QUE_CNT];
    std::unique_ptr<Series[]> series_;  // kMaxServiceIds named, then kOtherIds
    std::atomic<size_t> named_{0};
    std::unordered_map<std::string, Series*, Hash, std::equal_to<>> by_id_;  // the draining thread's
    Counter registered_{0}, in_flight_{0};
    std::atomic<bool> exporting_{false};
    Counter spans_sent_{0}, logs_sent_{0}, dropped_{0}, failed_{0}, retries_{0};
};

}  // namespace varnix::agent
