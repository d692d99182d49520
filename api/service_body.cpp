#include <algorithm>
#include <array>
#include <cstring>
#include <ctime>
#include <iterator>
#include <utility>

#include "api/service.h"
#include "core/clock.h"
#include "core/saturate.h"
#include "record/record.h"

namespace varnix {
namespace {

constexpr int kElapsedAt = 197;
constexpr int kCallAt = 208;
constexpr int kDepthAt = 219;

constexpr FieldPos kTelegramTail[] = {
    {222, 1},  {224, 6}, {231, 3}, {235, 12}, {248, 9}, {258, 7},  {266, 1}, {268, 9},  {278, 8}, {287, 39}, {327, 3},
    {331, 3},  {335, 1}, {337, 1}, {339, 12}, {352, 16}, {369, 3}, {373, 4}, {378, 3}, {382, 39}, {422, 1}, {424, 1},
};
// Eight telegram columns, then five fields of the caller's own: the
// process-tracing parameters, or the web fields.
constexpr FieldPos kShortTail[] = {
    {222, 1}, {224, 6}, {231, 3}, {235, 12}, {248, 9}, {258, 7}, {266, 1}, {268, 9},
    {278, 30}, {309, 20}, {330, 20}, {351, 30}, {382, 3},
};

// Every tail ends with its last column and the closing blank, and its
// columns follow each other with one blank between them.
constexpr int end_of(std::span<const FieldPos> tail) { return tail.back().offset + tail.back().width + 1; }
constexpr bool end_to_end(std::span<const FieldPos> tail) {
    for (size_t i = 1; i < tail.size(); ++i)
        if (tail[i].offset != tail[i - 1].offset + tail[i - 1].width + 1) return false;
    return true;
}
static_assert(end_of(kTelegramTail) == 426 && end_of(kShortTail) == 386);
static_assert(end_to_end(kTelegramTail) && end_to_end(kShortTail));

// The caller's columns into the tail.  The tail is blanked in one go, so a
// column not given costs only the test, and a given one only its bytes:
// padding and separators are already there.  Each column's width is a
// constant of its writer.
template <size_t W>
void put_given(char* at, Text t) {
    if (t.p) field_detail::copy_short<W + 1>(at, t.p, shown_len<W>(t));
}
template <const auto& Tail, size_t... I>
void write_columns(char* body, std::span<const Text, sizeof...(I)> cols, std::index_sequence<I...>) {
    (put_given<Tail[I].width>(body + Tail[I].offset, cols[I]), ...);
}
template <const auto& Tail>
void write_tail(char* body, std::span<const Text> cols) {
    constexpr size_t n = std::size(Tail);
    std::memset(body + Tail[0].offset, ' ', static_cast<size_t>(end_of(Tail) - Tail[0].offset));
    if (cols.size() >= n) {
        write_columns<Tail>(body, cols.first<n>(), std::make_index_sequence<n>{});
    } else if (!cols.empty()) {  // fewer columns than the tail: the rest are blank
        std::array<Text, n> all{};
        std::copy(cols.begin(), cols.end(), all.begin());
        write_columns<Tail>(body, std::span<const Text, n>(all), std::make_index_sequence<n>{});
    }
}

}  // namespace

const ServiceKind kStandardService{
    "TRAN_START", kTranStartApi, kTranEndApi, kTranErrorApi, kTelegramTail, write_tail<kTelegramTail>,
    end_of(kTelegramTail), true, true, true,
    "<!> START - service depth init (%d)->(0) GID-PID-TID |%.*s|-|%d|-|%d|, SVC (%.*s)->(%.*s) svc_depth_elapsed %d "
    "sec (base %d sec)",
    true,
};

const ServiceKind kProcessTraceService{
    "TRAN_PT_START", kTranPtStartApi, kTranPtEndApi, 0, kShortTail, write_tail<kShortTail>, end_of(kShortTail), false,
    false, false,
    "<!> START - service depth init (%d)->(0) GID-PID-TID|%.*s|-|%d|-|%d|, SVC (%.*s)->(%.*s), svc_depth_elapsed %d "
    "sec (base %d sec)",
    false,
};

const ServiceKind kClientHandlerService{
    "TRAN_CLH_START", kTranClhStartApi, kTranClhEndApi, kTranClhErrorApi, kTelegramTail, write_tail<kTelegramTail>,
    end_of(kTelegramTail), false, true, false, nullptr, false,
};

const ServiceKind kWebService{
    "TRAN_WEB_START", kTranWebStartApi, kTranWebEndApi, 0, kShortTail, write_tail<kShortTail>, end_of(kShortTail),
    false, false, false, nullptr, false,
};

// The times come from the thread's entry, which any process may have
// written: one that ten places cannot show shows the nearest that they can.
constexpr int64_t in_ten_places(int64_t us) { return std::clamp<int64_t>(us, -999'999'999, 9'999'999'999); }

void write_service_body(MTR_CXT_VAR& cxt, const ServiceKind& kind, const ServiceArgs& a, const ServiceRecord& r) {
    char* b = cxt.log_body;
    Now now;
    const timeval* timed = r.timed && !a.time_str.p ? r.timed : nullptr;
    if (timed) take_service_time(*cxt.ptrc, *r.timed, now);
    write_header(b, r.log_type, HeaderArgs{a.cls_cd, a.dtl_cd, r.gid, a.pid_str, a.date_str, a.time_str}, now, timed);
    if (timed && r.since) {
        put_number<10>(b + kElapsedAt, in_ten_places(usec_between(*r.since, *timed)));
        put_number<10>(b + kCallAt, in_ten_places(r.call_us));
    } else {
        std::memcpy(b + kElapsedAt, "0000000000 0000000000 ", 22);
    }
    put_number<2>(b + kDepthAt, r.depth);
    kind.write_tail(b, a.tail);
    *cxt.log_len = static_cast<uint32_t>(kind.body_len);
}

void mark_outermost_start(const ServiceKind& kind, MTR_CXT_VAR& cxt) {
    PTRC_HASH& e = *cxt.ptrc;
    const char* b = cxt.log_body;
    e.svc_state = 'f';
    e.svc_mark_time = std::time(nullptr);
    std::memcpy(e.main_gid, b + hdr::kGid, sizeof e.main_gid);
    std::memcpy(e.main_svc_id, b + hdr::kSvcId, sizeof e.main_svc_id);
    std::memcpy(e.main_recv_svc_cd, b + kind.tail[kTailRecvSvcCd].offset, sizeof e.main_recv_svc_cd);
    const char* chnl = b + kind.tail[kTailChnlTypCd].offset;
    e.chnl_class = kind.channel_class && internal_channel(chnl) ? 'C' : 'O';
}

void mark_outermost_end(PTRC_HASH& e) {
    e.svc_state = 'g';
    e.svc_mark_time = std::time(nullptr);
}

void take_service_time(PTRC_HASH& e, timeval& into, Now& now) {
    if (e.preset_start_tv.tv_sec != 0 || e.preset_start_tv.tv_usec != 0) {
        into = e.preset_start_tv;
        e.preset_start_tv = timeval{};
    } else {
        into = now.get();
    }
}

void set_service_depth(MTR_CXT_VAR& cxt, int depth) {
    cxt.service_depth = static_cast<int8_t>(depth);
    if (cxt.ptrc) cxt.ptrc->service_depth = static_cast<int8_t>(depth);
}

Printable printable(Text t, int cap) {
    if (!t.p) return {4, "null"};
    return {t.len >= 0 ? t.len : static_cast<int>(strnlen(t.p, static_cast<size_t>(cap))), t.p};
}

Printable printable_max(Text t, int cap, int max) {
    Printable p = printable(t, cap);
    if (p.len > max) p.len = max;
    return p;
}

}  // namespace varnix
