#include "collector/trace_ids.h"

#include <sys/random.h>

#include "core/clock.h"

namespace varnix::agent {
namespace {

using U128 = unsigned __int128;

constexpr U128 kFnvOffset = (U128{0x6c62272e07bb0142ull} << 64) | 0x62b821756295c58dull;
constexpr U128 kFnvPrime = (U128{1} << 88) | 0x13b;
constexpr uint64_t kSpread = 0x9E3779B97F4A7C15ull;  // odd: a counter step never repeats in 2^64

}  // namespace

TraceId trace_id_of_gid(std::string_view gid) {
    while (!gid.empty() && gid.back() == ' ') gid.remove_suffix(1);
    U128 h = kFnvOffset;
    for (char c : gid) {
        h ^= static_cast<unsigned char>(c);
        h *= kFnvPrime;
    }
    if (h == 0) h = 1;
    TraceId id;
    for (int i = 15; i >= 0; --i, h >>= 8) id.b[i] = static_cast<uint8_t>(h);
    return id;
}

SpanIds::SpanIds() {
    if (getrandom(&state_, sizeof state_, GRND_NONBLOCK) != static_cast<ssize_t>(sizeof state_))
        state_ = static_cast<uint64_t>(usec_of(clock_now())) ^ static_cast<uint64_t>(monotonic_us()) << 20;
}

SpanId SpanIds::next() {
    state_ += kSpread;
    if (state_ == 0) state_ += kSpread;  // zero is no span id
    SpanId id;
    uint64_t v = state_;
    for (int i = 7; i >= 0; --i, v >>= 8) id.b[i] = static_cast<uint8_t>(v);
    return id;
}

}  // namespace varnix::agent
