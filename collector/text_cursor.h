// A reader over the text of a record: literals, integers and "s.uuuuuu"
// times, left to right.  Every reader consumes nothing when it fails.
#pragma once

#include <cstdint>
#include <string_view>

namespace varnix::agent {

class TextCursor {
public:
    explicit TextCursor(std::string_view text) : s_(text) {}

    bool lit(std::string_view t) {
        if (s_.substr(0, t.size()) != t) return false;
        s_.remove_prefix(t.size());
        return true;
    }
    // An optional '-' and at least one digit.
    bool integer(int64_t& v);
    template <typename T>
    bool integer(T& v) {
        int64_t wide;
        if (!integer(wide)) return false;
        v = static_cast<T>(wide);
        return true;
    }
    // "seconds.uuuuuu" as microseconds; false when they do not fit.
    bool secs(int64_t& us);
    // The text before the next `delim`, consuming both.
    bool until(std::string_view delim, std::string_view& out);
    std::string_view rest() const { return s_; }
    bool done() const { return s_.empty(); }

private:
    std::string_view s_;
};

}  // namespace varnix::agent
