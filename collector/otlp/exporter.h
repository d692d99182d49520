// OTLP/HTTP export of finished spans and log records.
//
// The draining thread hands items over with span() and log(), which never
// wait for the network: they take the buffer's mutex only to append, and an
// item that would push the buffer past its byte bound is dropped and counted.
// The exporter's own thread takes everything waiting out at once (when a
// batch is full, or when the oldest item has waited batch_delay_us), encodes
// it in batches and POSTs them,
// retrying with doubling back-off on connection errors, time-outs, 429 and
// 503 while the draining thread goes on filling the buffer.  Counters are
// atomics, read by the periodic report.  The mutex guards the two queues, their
// byte count and the stop flag.
#pragma once

#include <pthread.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <mutex>
#include <string>
#include <vector>

#include "collector/span_data.h"

namespace varnix::agent {

struct ExportConfig {
    std::string url;                              // base URL; /v1/traces and /v1/logs are added
    size_t buffer_bytes = 64u << 20;              // bound of what waits for export
    size_t batch_items = 512;
    int64_t batch_delay_us = 1'000'000;           // the longest an item waits for its batch to fill
    long connect_timeout_ms = 2'000;
    long request_timeout_ms = 5'000;
    int64_t backoff_first_us = 100'000;
    int64_t backoff_max_us = 5'000'000;
    int64_t stop_flush_us = 2'000'000;            // what stop() grants to send what is buffered
};

struct ExportCounts {
    uint64_t spans_sent = 0, logs_sent = 0;
    uint64_t dropped = 0;  // the buffer was full
    uint64_t failed = 0;   // refused by the receiver, or still unsent at the stop
    uint64_t retries = 0;
};

class OtlpExporter : public TelemetrySink {
public:
    explicit OtlpExporter(ExportConfig config);
    ~OtlpExporter() override;
    OtlpExporter(const OtlpExporter&) = delete;
    OtlpExporter& operator=(const OtlpExporter&) = delete;

    // Starts the thread; false, with a line on standard error, when it cannot.
    bool start();
    // Sends what is buffered within stop_flush_us (and the request under way
    // then), counts the rest as failed, and ends the thread.
    void stop();

    void span(SpanData&& s) override;
    void log(LogData&& l) override;

    ExportCounts counts() const;
    // One line for the agent's periodic report.
    void report(std::FILE* out) const;

private:
    template <typename T>
    bool offer(std::vector<T>& q, T&& item, size_t bytes);
    static void* run(void* self);
    void loop();
    // Takes everything waiting once a batch is due; the bytes then held,
    // or 0 when stopping and nothing is left.
    size_t take(std::vector<SpanData>& spans, std::vector<LogData>& logs);
    // True once the receiver took the batch; false when it was given up (counted as failed).
    bool send(const char* path, const std::string& body, size_t items);
    // One POST: 0 sent, 1 worth retrying, -1 refused for good.
    int post(const std::string& url, const std::string& body, std::string& why);
    // Waits up to `us`, or less when stopping; false once the stop's flush time is over.
    bool pause(int64_t us);
    bool out_of_time() const;  // under the mutex
    bool stop_time_over() const;

    const ExportConfig config_;
    void* curl_ = nullptr;
    void* headers_ = nullptr;
    pthread_t thread_{};
    bool running_ = false;

    mutable std::mutex mu_;
    std::condition_variable cv_;
    std::vector<SpanData> spans_;
    std::vector<LogData> logs_;
    size_t bytes_ = 0;                // waiting, and taken but not yet sent
    int64_t oldest_us_ = INT64_MAX;   // monotonic time the oldest waiting item came
    bool stopping_ = false;
    int64_t stop_deadline_us_ = 0;

    std::atomic<uint64_t> spans_sent_{0}, logs_sent_{0}, dropped_{0}, failed_{0}, retries_{0};
    int64_t last_complaint_us_ = 0;  // exporter thread only
};

}  // namespace varnix::agent
