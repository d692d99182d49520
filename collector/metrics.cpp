#include "collector/metrics.h"

#include <charconv>
#include <cstdio>

namespace varnix::agent {
namespace {

// Appends exposition lines to a text.
class Exposition {
public:
    explicit Exposition(std::string& out) : out_(out) {}

    void family(std::string_view name, std::string_view type, std::string_view help) {
        out_.append("# HELP ").append(name).append(" ").append(help).append("\n# TYPE ");
        out_.append(name).append(" ").append(type).append("\n");
    }
    // `name{labels} value`; `labels` are already escaped and joined.
    void line(std::string_view name, std::string_view labels, uint64_t value) {
        head(name, labels);
        number(value);
        out_ += '\n';
    }
    // A value in microseconds, as seconds with six decimals.
    void seconds(std::string_view name, std::string_view labels, uint64_t us) {
        head(name, labels);
        char buf[48];
        const int n = std::snprintf(buf, sizeof buf, "%llu.%06llu\n", static_cast<unsigned long long>(us / 1'000'000),
                                    static_cast<unsigned long long>(us % 1'000'000));
        out_.append(buf, static_cast<size_t>(n));
    }

private:
    void head(std::string_view name, std::string_view labels) {
        out_.append(name);
        if (!labels.empty()) out_.append("{").append(labels).append("}");
        out_ += ' ';
    }
    void number(uint64_t v) {
        char buf[24];
        const auto r = std::to_chars(buf, buf + sizeof buf, v);
        out_.append(buf, r.ptr);
    }
    std::string& out_;
};

// `key="value"`, the value escaped as the format asks: backslash, double
// quote and line feed.
std::string label(std::string_view key, std::string_view value) {
    std::string s(key);
    s.append("=\"");
    for (char c : value) {
        if (c == '\\' || c == '"')
            s.append({'\\', c});
        else if (c == '\n')
            s.append("\\n");
        else
            s += c;
    }
    s += '"';
    return s;
}

uint64_t get(const std::atomic<uint64_t>& c) { return c.load(std::memory_order_relaxed); }

}  // namespace

Metrics::Metrics(int queues)
    : queue_count_(queues), series_(std::make_unique<Series[]>(kMaxServiceIds + 1)) {
    series_[kMaxServiceIds].id = kOtherIds;
    by_id_.reserve(kMaxServiceIds);
}

Metrics::Series& Metrics::series_of(std::string_view id) {
    if (const auto it = by_id_.find(id); it != by_id_.end()) return *it->second;
    const size_t n = named_.load(std::memory_order_relaxed);
    if (n == kMaxServiceIds) return series_[kMaxServiceIds];
    Series& s = series_[n];
    s.id = id;
    by_id_.emplace(s.id, &s);
    named_.store(n + 1, std::memory_order_release);
    return s;
}

void Metrics::record(const Record& r, const SpanRef& ref) {
    if (r.log_type == '9') {
        bump(series_of(r.f.text_of("svc_id")).errors);
        return;
    }
    if (r.log_type != '2') return;
    Series& s = series_of(r.f.text_of("svc_id"));
    bump(s.ends);
    if (ref.duration_us < 0) return;
    const auto us = static_cast<uint64_t>(ref.duration_us);
    size_t b = 0;
    while (b < std::size(kBoundsUs) && ref.duration_us > kBoundsUs[b]) ++b;
    bump(s.buckets[b]);
    bump(s.sum_us, us);
}

void Metrics::sample(const Sample& s) {
    auto set = [](Counter& c, uint64_t v) { c.store(v, std::memory_order_relaxed); };
    // The shared blocks are written by other processes: read once, as they are.
    if (s.que_info)
        for (int q = 0; q < queue_count_; ++q)
            set(queues_[q].refused, __atomic_load_n(&s.que_info->msgq_fail_cnt[q], __ATOMIC_RELAXED));
    if (s.ptrc) set(registered_, __atomic_load_n(&s.ptrc->used_cnt, __ATOMIC_RELAXED));
    set(in_flight_, s.in_flight);
    if (!s.exported) return;
    set(spans_sent_, s.exported->spans_sent);
    set(logs_sent_, s.exported->logs_sent);
    set(dropped_, s.exported->dropped);
    set(failed_, s.exported->failed);
    set(retries_, s.exported->retries);
    exporting_.store(true, std::memory_order_relaxed);
}

std::string Metrics::render() const {
    std::string out;
    out.reserve(4096);
    render_services(out);
    render_queues(out);
    render_gauges(out);
    return out;
}

void Metrics::render_services(std::string& out) const {
    // The named series, then the ids past the cap once they have any.
    const size_t named = named_.load(std::memory_order_acquire);
    const Series& other = series_[kMaxServiceIds];
    const bool others = get(other.ends) + get(other.errors) > 0;
    auto each = [&](auto emit) {
        for (size_t i = 0; i < named; ++i) emit(series_[i], label("svc_id", series_[i].id));
        if (others) emit(other, label("svc_id", other.id));
    };
    Exposition e(out);
    e.family("varnix_service_ends_total", "counter", "Services ended (service_end records), by service id.");
    each([&](const Series& s, const std::string& l) { e.line("varnix_service_ends_total", l, get(s.ends)); });
    e.family("varnix_service_errors_total", "counter", "Service errors (service_error records), by service id.");
    each([&](const Series& s, const std::string& l) { e.line("varnix_service_errors_total", l, get(s.errors)); });
    e.family("varnix_service_duration_seconds", "histogram",
             "Durations of the ended services whose start the agent saw or whose end carried it, by service id.");
    each([&](const Series& s, const std::string& l) {
        uint64_t cumulative = 0;
        for (size_t b = 0; b < kBuckets; ++b) {
            cumulative += get(s.buckets[b]);
            const std::string_view le = b < std::size(kBoundsText) ? kBoundsText[b] : "+Inf";
            e.line("varnix_service_duration_seconds_bucket", l + ",le=\"" + std::string(le) + "\"", cumulative);
        }
        e.seconds("varnix_service_duration_seconds_sum", l, get(s.sum_us));
        e.line("varnix_service_duration_seconds_count", l, cumulative);
    });
}

void Metrics::render_queues(std::string& out) const {
    struct Family {
        std::string_view name, help;
        Counter PerQueue::*counter;
    };
    static constexpr Family kFamilies[] = {
        {"varnix_records_received_total", "Messages taken from the queue.", &PerQueue::received},
        {"varnix_records_malformed_total", "Messages skipped as malformed.", &PerQueue::malformed},
        {"varnix_queue_sends_refused_total", "Sends the traced processes counted as refused (msgq_fail_cnt).",
         &PerQueue::refused},
    };
    Exposition e(out);
    for (const Family& f : kFamilies) {
        e.family(f.name, "counter", f.help);
        for (int q = 0; q < queue_count_; ++q)
            e.line(f.name, label("queue", std::to_string(q)), get(queues_[q].*f.counter));
    }
}

void Metrics::render_gauges(std::string& out) const {
    Exposition e(out);
    e.family("varnix_threads_registered", "gauge", "Entries in use in the process-thread table (used_cnt).");
    e.line("varnix_threads_registered", "", get(registered_));
    e.family("varnix_services_in_flight", "gauge", "Services started whose end the agent has not seen yet.");
    e.line("varnix_services_in_flight", "", get(in_flight_));
    if (!exporting_.load(std::memory_order_relaxed)) return;
    e.family("varnix_otlp_exported_total", "counter", "Spans and log records the OTLP receiver accepted.");
    e.line("varnix_otlp_exported_total", label("signal", "spans"), get(spans_sent_));
    e.line("varnix_otlp_exported_total", label("signal", "logs"), get(logs_sent_));
    e.family("varnix_otlp_dropped_total", "counter", "Spans and log records dropped: the export buffer was full.");
    e.line("varnix_otlp_dropped_total", "", get(dropped_));
    e.family("varnix_otlp_failed_total", "counter",
             "Spans and log records refused by the receiver or still unsent at the stop.");
    e.line("varnix_otlp_failed_total", "", get(failed_));
    e.family("varnix_otlp_retries_total", "counter", "Export requests retried.");
    e.line("varnix_otlp_retries_total", "", get(retries_));
}

}  // namespace varnix::agent
