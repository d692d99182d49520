#include "collector/json_line.h"

#include <charconv>
#include <cstring>

namespace varnix::agent {
namespace {

constexpr char kHex[] = "0123456789abcdef";

bool needs_escape(unsigned char c) { return c < 0x20 || c == '"' || c == '\\'; }

void escaped(std::string& out, std::string_view v) {
    size_t run = 0;  // start of the bytes not yet copied
    for (size_t i = 0; i < v.size(); ++i) {
        const auto c = static_cast<unsigned char>(v[i]);
        if (!needs_escape(c)) continue;
        out.append(v.data() + run, i - run);
        run = i + 1;
        switch (c) {
            case '"': out += "\\\""; break;
            case '\\': out += "\\\\"; break;
            case '\n': out += "\\n"; break;
            case '\t': out += "\\t"; break;
            case '\r': out += "\\r"; break;
            default:
                out += "\\u00";
                out += kHex[c >> 4];
                out += kHex[c & 15];
        }
    }
    out.append(v.data() + run, v.size() - run);
}

}  // namespace

void JsonLine::key(std::string_view k) {
    // One append per key: the separator, the quoted name and the colon.
    char b[64];
    size_t n = 0;
    if (!first_) b[n++] = ',';
    first_ = false;
    b[n++] = '"';
    if (k.size() > sizeof b - n - 2) {  // keys are the agent's own short names: never
        out_.append(b, n).append(k).append("\":");
        return;
    }
    std::memcpy(b + n, k.data(), k.size());  // nothing to escape in the agent's own names
    n += k.size();
    b[n++] = '"';
    b[n++] = ':';
    out_.append(b, n);
}

void JsonLine::num(std::string_view k, int64_t v) {
    key(k);
    char b[24];
    const auto r = std::to_chars(b, b + sizeof b, v);
    out_.append(b, r.ptr);
}

void JsonLine::str(std::string_view k, std::string_view v) {
    key(k);
    out_ += '"';
    escaped(out_, v);
    out_ += '"';
}

void JsonLine::hex(std::string_view k, const uint8_t* bytes, size_t n) {
    key(k);
    char b[2 * 32 + 2];
    if (n > 32) n = 32;  // ids are 8 or 16 bytes
    size_t at = 0;
    b[at++] = '"';
    for (size_t i = 0; i < n; ++i) {
        b[at++] = kHex[bytes[i] >> 4];
        b[at++] = kHex[bytes[i] & 15];
    }
    b[at++] = '"';
    out_.append(b, at);
}

}  // namespace varnix::agent
