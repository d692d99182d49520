#include "collector/otlp/exporter.h"

#include <curl/curl.h>

#include <algorithm>
#include <chrono>
#include <cstring>

#include "collector/otlp/encode.h"
#include "core/clock.h"

namespace varnix::agent {
namespace {

constexpr int64_t kComplainEveryUs = 10'000'000;

size_t attrs_bytes(const std::vector<Attr>& attrs) {
    size_t n = 0;
    for (const Attr& a : attrs) n += sizeof a + a.s.size();
    return n;
}

// What an item holds, near enough to bound the buffer's memory.
size_t weight(const SpanData& s) {
    size_t n = sizeof s + s.name.size() + s.status_message.size() + attrs_bytes(s.attrs);
    for (const SpanEvent& e : s.events) n += sizeof e + attrs_bytes(e.attrs);
    return n;
}
size_t weight(const LogData& l) { return sizeof l + l.body.size() + attrs_bytes(l.attrs); }

// The response body is not needed.
size_t discard(char*, size_t size, size_t n, void*) { return size * n; }

bool retryable_http(long code) { return code == 429 || code == 502 || code == 503 || code == 504; }
bool retryable_curl(CURLcode rc) {
    return rc != CURLE_URL_MALFORMAT && rc != CURLE_UNSUPPORTED_PROTOCOL && rc != CURLE_OUT_OF_MEMORY;
}

}  // namespace

OtlpExporter::OtlpExporter(ExportConfig config) : config_(std::move(config)) {}

OtlpExporter::~OtlpExporter() {
    stop();
    if (headers_) curl_slist_free_all(static_cast<curl_slist*>(headers_));
    if (curl_) curl_easy_cleanup(static_cast<CURL*>(curl_));
}

bool OtlpExporter::start() {
    // The agent's other threads never use libcurl, so its global set-up is
    // safe here, before the exporter's thread exists.
    if (curl_global_init(CURL_GLOBAL_DEFAULT) != CURLE_OK || !(curl_ = curl_easy_init())) {
        std::fprintf(stderr, "varnix-agent: otlp: libcurl cannot be set up\n");
        return false;
    }
    headers_ = curl_slist_append(nullptr, "Content-Type: application/x-protobuf");
    CURL* c = static_cast<CURL*>(curl_);
    const bool ok = headers_ && curl_easy_setopt(c, CURLOPT_NOSIGNAL, 1L) == CURLE_OK &&
                    curl_easy_setopt(c, CURLOPT_HTTPHEADER, headers_) == CURLE_OK &&
                    curl_easy_setopt(c, CURLOPT_CONNECTTIMEOUT_MS, config_.connect_timeout_ms) == CURLE_OK &&
                    curl_easy_setopt(c, CURLOPT_TIMEOUT_MS, config_.request_timeout_ms) == CURLE_OK &&
                    curl_easy_setopt(c, CURLOPT_WRITEFUNCTION, discard) == CURLE_OK;
    const int rc = ok ? pthread_create(&thread_, nullptr, run, this) : -1;
    if (rc != 0) {
        std::fprintf(stderr, "varnix-agent: otlp: cannot start the exporter: %s\n",
                     ok ? std::strerror(rc) : "libcurl refused an option");
        return false;
    }
    running_ = true;
    return true;
}

void OtlpExporter::stop() {
    if (!running_) return;
    {
        std::lock_guard<std::mutex> lock(mu_);
        stopping_ = true;
        stop_deadline_us_ = monotonic_us() + config_.stop_flush_us;
    }
    cv_.notify_all();
    (void)pthread_join(thread_, nullptr);
    running_ = false;
}

template <typename T>
bool OtlpExporter::offer(std::vector<T>& q, T&& item, size_t bytes) {
    bool wake = false;
    {
        std::lock_guard<std::mutex> lock(mu_);
        if (bytes_ + bytes > config_.buffer_bytes) {
            dropped_.fetch_add(1, std::memory_order_relaxed);
            return false;
        }
        bytes_ += bytes;
        q.push_back(std::move(item));
        // The first item starts the batch's clock; a full batch leaves at once.
        if (oldest_us_ == INT64_MAX) {
            oldest_us_ = monotonic_us();
            wake = true;
        }
        wake = wake || q.size() == config_.batch_items;
    }
    if (wake) cv_.notify_one();
    return true;
}

void OtlpExporter::span(SpanData&& s) {
    const size_t bytes = weight(s);
    offer(spans_, std::move(s), bytes);
}

void OtlpExporter::log(LogData&& l) {
    const size_t bytes = weight(l);
    offer(logs_, std::move(l), bytes);
}

void* OtlpExporter::run(void* self) {
    static_cast<OtlpExporter*>(self)->loop();
    return nullptr;
}

size_t OtlpExporter::take(std::vector<SpanData>& spans, std::vector<LogData>& logs) {
    std::unique_lock<std::mutex> lock(mu_);
    for (;;) {
        const bool full = spans_.size() >= config_.batch_items || logs_.size() >= config_.batch_items;
        const bool any = oldest_us_ != INT64_MAX;
        if (full || (any && (stopping_ || monotonic_us() >= oldest_us_ + config_.batch_delay_us))) break;
        if (stopping_) return 0;  // nothing left
        if (!any)
            cv_.wait(lock);
        else
            cv_.wait_for(lock, std::chrono::microseconds(oldest_us_ + config_.batch_delay_us - monotonic_us()));
    }
    // Everything at once, in constant time: the draining thread never waits
    // for the exporter's copying.  What is taken still counts against the
    // buffer's bound until it has been sent.
    spans.swap(spans_);
    logs.swap(logs_);
    oldest_us_ = INT64_MAX;
    return bytes_;
}

void OtlpExporter::loop() {
    std::vector<SpanData> spans;
    std::vector<LogData> logs;
    for (size_t taken; (taken = take(spans, logs)) != 0;) {
        const size_t b = config_.batch_items;
        uint64_t spans_sent = 0, logs_sent = 0;
        for (size_t i = 0; i < spans.size(); i += b) {
            const auto batch = std::span<const SpanData>(spans).subspan(i, std::min(b, spans.size() - i));
            if (send("/v1/traces", encode_traces(batch), batch.size())) spans_sent += batch.size();
        }
        for (size_t i = 0; i < logs.size(); i += b) {
            const auto batch = std::span<const LogData>(logs).subspan(i, std::min(b, logs.size() - i));
            if (send("/v1/logs", encode_logs(batch), batch.size())) logs_sent += batch.size();
        }
        spans.clear();  // their room serves the next swap
        logs.clear();
        {
            std::lock_guard<std::mutex> lock(mu_);
            bytes_ -= taken;
        }
        // Counted once their room is free again: whoever sees them sent can
        // offer as much again.
        spans_sent_.fetch_add(spans_sent, std::memory_order_release);
        logs_sent_.fetch_add(logs_sent, std::memory_order_release);
    }
}

bool OtlpExporter::send(const char* path, const std::string& body, size_t items) {
    const std::string url = config_.url + path;
    int64_t backoff = config_.backoff_first_us;
    for (;;) {
        if (stop_time_over()) {
            failed_.fetch_add(items, std::memory_order_relaxed);
            return false;
        }
        std::string why;
        const int rc = post(url, body, why);
        if (rc == 0) return true;
        const int64_t now = monotonic_us();
        if (now - last_complaint_us_ >= kComplainEveryUs) {
            std::fprintf(stderr, "varnix-agent: otlp: %s: %s%s\n", url.c_str(), why.c_str(),
                         rc > 0 ? "; retrying" : "; batch dropped");
            last_complaint_us_ = now;
        }
        if (rc < 0 || !pause(backoff)) {
            failed_.fetch_add(items, std::memory_order_relaxed);
            return false;
        }
        retries_.fetch_add(1, std::memory_order_relaxed);
        backoff = std::min(backoff * 2, config_.backoff_max_us);
    }
}

int OtlpExporter::post(const std::string& url, const std::string& body, std::string& why) {
    CURL* c = static_cast<CURL*>(curl_);
    if (curl_easy_setopt(c, CURLOPT_URL, url.c_str()) != CURLE_OK ||
        curl_easy_setopt(c, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(body.size())) != CURLE_OK ||
        curl_easy_setopt(c, CURLOPT_POSTFIELDS, body.data()) != CURLE_OK) {
        why = "libcurl refused the request";
        return -1;
    }
    const CURLcode rc = curl_easy_perform(c);
    if (rc != CURLE_OK) {
        why = curl_easy_strerror(rc);
        return retryable_curl(rc) ? 1 : -1;
    }
    long code = 0;
    if (curl_easy_getinfo(c, CURLINFO_RESPONSE_CODE, &code) != CURLE_OK) code = 0;
    if (code >= 200 && code < 300) return 0;
    why = "HTTP status " + std::to_string(code);
    return retryable_http(code) ? 1 : -1;
}

bool OtlpExporter::pause(int64_t us) {
    std::unique_lock<std::mutex> lock(mu_);
    const int64_t until = monotonic_us() + us;
    for (;;) {
        const int64_t end = stopping_ ? std::min(until, stop_deadline_us_) : until;
        const int64_t now = monotonic_us();
        if (now >= end) break;
        cv_.wait_for(lock, std::chrono::microseconds(end - now));
    }
    return !out_of_time();
}

bool OtlpExporter::out_of_time() const { return stopping_ && monotonic_us() >= stop_deadline_us_; }

bool OtlpExporter::stop_time_over() const {
    std::lock_guard<std::mutex> lock(mu_);
    return out_of_time();
}

ExportCounts OtlpExporter::counts() const {
    ExportCounts c;
    c.spans_sent = spans_sent_.load(std::memory_order_acquire);
    c.logs_sent = logs_sent_.load(std::memory_order_acquire);
    c.dropped = dropped_.load(std::memory_order_relaxed);
    c.failed = failed_.load(std::memory_order_relaxed);
    c.retries = retries_.load(std::memory_order_relaxed);
    return c;
}

void OtlpExporter::report(std::FILE* out) const {
    const ExportCounts c = counts();
    size_t waiting = 0;
    {
        std::lock_guard<std::mutex> lock(mu_);
        waiting = spans_.size() + logs_.size();
    }
    std::fprintf(out,
                 "varnix-agent: otlp: %llu spans and %llu log records exported, %zu waiting, %llu dropped (buffer "
                 "full), %llu failed, %llu retries\n",
                 static_cast<unsigned long long>(c.spans_sent), static_cast<unsigned long long>(c.logs_sent), waiting,
                 static_cast<unsigned long long>(c.dropped), static_cast<unsigned long long>(c.failed),
                 static_cast<unsigned long long>(c.retries));
}

}  // namespace varnix::agent
