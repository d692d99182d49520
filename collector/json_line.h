// One JSON object on one line, written straight into a buffer: the agent's
// records have fixed keys, texts already checked to be UTF-8 and integer
// numbers, so a general JSON library's document tree would only cost time.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace varnix::agent {

class JsonLine {
public:
    // Appends to `out`, which the caller empties when it has written it.
    explicit JsonLine(std::string& out) : out_(out) { out_ += '{'; }

    void num(std::string_view key, int64_t v);
    // A UTF-8 text; quotes, backslashes and control characters are escaped.
    void str(std::string_view key, std::string_view v);
    // Bytes as lower-case hexadecimal digits, as trace and span ids are shown.
    void hex(std::string_view key, const uint8_t* bytes, size_t n);
    // Closes the object and the line.
    void end() { out_ += "}\n"; }

private:
    void key(std::string_view k);
    std::string& out_;
    bool first_ = true;
};

}  // namespace varnix::agent
