// Records received per queue, and the report the agent gives every 10 s and
// at exit: records per second and the sends the library counted as failed.
#pragma once

#include <cstdint>
#include <cstdio>

#include "varnix_collector.h"

namespace varnix::agent {

class QueueStats {
public:
    QueueStats(int queues, int64_t now_us);

    void received(int q) { ++total_[q]; }
    void malformed() { ++malformed_; }
    uint64_t malformed_count() const { return malformed_; }

    // One line per queue since the last report, then the totals.
    void report(const TRAN_LOGF_QUE_INFO& qi, int64_t now_us, std::FILE* out);

private:
    int queues_;
    int64_t last_us_;
    uint64_t total_[VARNIX_MAX_QUE_CNT] = {};
    uint64_t at_last_[VARNIX_MAX_QUE_CNT] = {};
    uint64_t malformed_ = 0;
};

}  // namespace varnix::agent
