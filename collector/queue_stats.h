// Records received per queue, and what the agent reports on standard error:
// every 10 s and at exit the records per second, the malformed records, the
// lines that could not be written and the sends the library counted as
// failed; malformed records at most once a second, with their count.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>

#include "varnix_collector.h"

namespace varnix::agent {

class QueueStats {
public:
    QueueStats(int queues, int64_t now_us);

    void received(int q) { ++total_[q]; }
    // A malformed record from queue q: a line at once when none was given in
    // the last second, else the next line counts it.
    void malformed(int q, const std::string& why, int64_t now_us, std::FILE* out);
    // The line of malformed records not yet reported, once the second since
    // the last one is over (or at once with `now_us` INT64_MAX).
    void report_malformed(int64_t now_us, std::FILE* out);

    // One line per queue since the last report, then the totals.
    void report(const TRAN_LOGF_QUE_INFO& qi, uint64_t unwritten, int64_t now_us, std::FILE* out);

private:
    int queues_;
    int64_t last_us_;
    uint64_t total_[VARNIX_MAX_QUE_CNT] = {};
    uint64_t at_last_[VARNIX_MAX_QUE_CNT] = {};
    uint64_t malformed_ = 0;
    uint64_t malformed_unreported_ = 0;
    int last_malformed_queue_ = 0;
    std::string last_malformed_why_;
    int64_t next_malformed_line_us_ = 0;
};

}  // namespace varnix::agent
