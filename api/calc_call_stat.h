// Per-service call statistics of a thread, and the excessive-call rule.
#pragma once

#include <algorithm>
#include <cstdint>

#include "context/mtr_cxt.h"
#include "core/gvar.h"
#include "core/saturate.h"

namespace varnix {

// Counts one finished traced call of `kind` ('B' DBIO, anything else
// BIZCALL) that lasted `elapsed_us`, of which `children_us` were spent in the
// calls it made (the elapsed sum of the level below the call's, which is
// still open).  The first call of a service beyond INFINITE_LOOP_BASE_CNT
// sends event 1300 and raises the limits.
//
// Inline: every traced call's finish runs it; only the rule's event is out of
// line.
inline void calc_call_stat(MTR_CXT_VAR& cxt, int64_t elapsed_us, char kind, int64_t children_us);

namespace call_stat_detail {

// A maximum in milliseconds raised to `us`, in whole milliseconds.  us / 1000
// can exceed a maximum m only once us reaches (m + 1) ms, kept in `next_us`:
// one compare per call, and the division only for a new maximum.
inline void raise_ms(int32_t& max_ms, int64_t& next_us, int64_t us) {
    if (us < next_us) [[likely]]
        return;
    max_ms = std::max(max_ms, clamp_to<int32_t>(us / 1000));
    next_us = (static_cast<int64_t>(max_ms) + 1) * 1000;
}

// The service's calls have gone beyond `base_cnt`: the event, and the limits
// raised for the rest of the service.
[[gnu::cold, gnu::noinline]] void excess_calls(MTR_CXT_VAR& cxt, int32_t base_cnt);

}  // namespace call_stat_detail

inline void calc_call_stat(MTR_CXT_VAR& cxt, int64_t elapsed_us, char kind, int64_t children_us) {
    using namespace call_stat_detail;
    CallStat& st = cxt.call_stat;
    if (kind == 'B') {
        st.dbio_elapsed_sum = sat_add(st.dbio_elapsed_sum, elapsed_us);
        ++st.dbio_cnt;
        raise_ms(st.dbio_max_ms, st.dbio_next_us, elapsed_us);
    } else {
        ++st.biz_cnt;
        st.biz_elapsed_sum = sat_add(st.biz_elapsed_sum, elapsed_us);
        raise_ms(st.biz_max_ms, st.biz_next_us, elapsed_us);
        raise_ms(st.biz_self_max_ms, st.biz_self_next_us, sat_sub(elapsed_us, children_us));
    }
    const int32_t base_cnt = gvar.infinite_loop_base_cnt;
    if (static_cast<int64_t>(st.biz_cnt) + st.dbio_cnt <= base_cnt || st.excess_call_flag != 0) return;
    excess_calls(cxt, base_cnt);
}

}  // namespace varnix
