#include "collector/queue_stats.h"

namespace varnix::agent {
namespace {

constexpr int64_t kMalformedLineEveryUs = 1'000'000;

}  // namespace

QueueStats::QueueStats(int queues, int64_t now_us) : queues_(queues), last_us_(now_us) {}

void QueueStats::malformed(int q, const std::string& why, int64_t now_us, std::FILE* out) {
    ++malformed_;
    ++malformed_unreported_;
    last_malformed_queue_ = q;
    last_malformed_why_ = why;
    report_malformed(now_us, out);
}

void QueueStats::report_malformed(int64_t now_us, std::FILE* out) {
    if (malformed_unreported_ == 0 || now_us < next_malformed_line_us_) return;
    std::fprintf(out, "varnix-agent: %llu malformed records skipped, the last from queue %d: %s\n",
                 static_cast<unsigned long long>(malformed_unreported_), last_malformed_queue_,
                 last_malformed_why_.c_str());
    malformed_unreported_ = 0;
    next_malformed_line_us_ = now_us == INT64_MAX ? now_us : now_us + kMalformedLineEveryUs;
}

void QueueStats::report(const TRAN_LOGF_QUE_INFO& qi, uint64_t unwritten, int64_t now_us, std::FILE* out) {
    const double secs = static_cast<double>(now_us - last_us_) / 1e6;
    uint64_t received = 0, failed = 0;
    for (int q = 0; q < queues_; ++q) {
        const uint64_t n = total_[q] - at_last_[q];
        const uint32_t fail = __atomic_load_n(&qi.msgq_fail_cnt[q], __ATOMIC_RELAXED);
        std::fprintf(out, "varnix-agent: queue %d: %.1f records/s (%llu in %.1f s, %llu in all), msgq_fail_cnt %u\n", q,
                     secs > 0 ? static_cast<double>(n) / secs : 0.0, static_cast<unsigned long long>(n), secs,
                     static_cast<unsigned long long>(total_[q]), fail);
        at_last_[q] = total_[q];
        received += total_[q];
        failed += fail;
    }
    std::fprintf(out,
                 "varnix-agent: %llu records received, %llu malformed skipped, %llu lines not written, %llu sends "
                 "refused by full queues (msgq_fail_cnt)\n",
                 static_cast<unsigned long long>(received), static_cast<unsigned long long>(malformed_),
                 static_cast<unsigned long long>(unwritten), static_cast<unsigned long long>(failed));
    std::fflush(out);
    last_us_ = now_us;
}

}  // namespace varnix::agent
