#include "collector/text_cursor.h"

namespace varnix::agent {
namespace {

constexpr int64_t kUsPerSec = 1'000'000;
constexpr size_t kMicroDigits = 6;

bool is_digit(char c) { return c >= '0' && c <= '9'; }

}  // namespace

bool TextCursor::integer(int64_t& v) {
    size_t i = s_.substr(0, 1) == "-" ? 1 : 0;
    const size_t first = i;
    int64_t n = 0;
    for (; i < s_.size() && is_digit(s_[i]) && i - first < 18; ++i) n = n * 10 + (s_[i] - '0');
    if (i == first || (i < s_.size() && is_digit(s_[i]))) return false;
    v = first ? -n : n;
    s_.remove_prefix(i);
    return true;
}

bool TextCursor::secs(int64_t& us) {
    const std::string_view keep = s_;
    int64_t whole = 0, frac = 0;
    const bool negative = s_.substr(0, 1) == "-";
    if (!integer(whole) || !lit(".")) {
        s_ = keep;
        return false;
    }
    const size_t frac_at = s_.size();
    if (s_.substr(0, 1) == "-" || !integer(frac) || frac_at - s_.size() != kMicroDigits) {
        s_ = keep;
        return false;
    }
    // A malformed record may carry more seconds than microseconds can count.
    int64_t whole_us = 0, total = 0;
    if (__builtin_mul_overflow(whole, kUsPerSec, &whole_us) ||
        __builtin_add_overflow(whole_us, negative ? -frac : frac, &total)) {
        s_ = keep;
        return false;
    }
    us = total;
    return true;
}

bool TextCursor::until(std::string_view delim, std::string_view& out) {
    const size_t at = s_.find(delim);
    if (at == std::string_view::npos) return false;
    out = s_.substr(0, at);
    s_.remove_prefix(at + delim.size());
    return true;
}

}  // namespace varnix::agent
