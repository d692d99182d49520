#include "collector/utf8_text.h"

#include <cstdint>
#include <cstdio>
#include <cstring>

namespace varnix::agent {
namespace {

// Length of the sequence a lead byte opens; 0 for a byte that cannot lead.
int sequence_length(unsigned char b) {
    if (b < 0x80) return 1;
    if (b >= 0xC2 && b <= 0xDF) return 2;
    if (b >= 0xE0 && b <= 0xEF) return 3;
    if (b >= 0xF0 && b <= 0xF4) return 4;
    return 0;
}

bool is_continuation(unsigned char b) { return (b & 0xC0) == 0x80; }

// The second byte's narrower range after some lead bytes (overlong forms,
// surrogates, code points above U+10FFFF).
bool second_byte_ok(unsigned char lead, unsigned char b) {
    switch (lead) {
        case 0xE0: return b >= 0xA0 && b <= 0xBF;
        case 0xED: return b >= 0x80 && b <= 0x9F;
        case 0xF0: return b >= 0x90 && b <= 0xBF;
        case 0xF4: return b >= 0x80 && b <= 0x8F;
        default: return is_continuation(b);
    }
}

}  // namespace

std::optional<std::string_view> utf8_field(std::string_view text) {
    size_t i = 0;
    // ASCII, the usual case, eight bytes at a time.
    for (uint64_t w; i + sizeof w <= text.size() && (std::memcpy(&w, text.data() + i, sizeof w),
                                                     (w & 0x8080808080808080ull) == 0);)
        i += sizeof w;
    while (i < text.size()) {
        const auto lead = static_cast<unsigned char>(text[i]);
        const int n = sequence_length(lead);
        if (n == 0) return std::nullopt;
        for (int k = 1; k < n; ++k) {
            if (i + k == text.size()) return text.substr(0, i);  // cut at the end
            const auto b = static_cast<unsigned char>(text[i + k]);
            if (!(k == 1 ? second_byte_ok(lead, b) : is_continuation(b))) return std::nullopt;
        }
        i += static_cast<size_t>(n);
    }
    return text;
}

std::string escape_bytes(std::string_view raw) {
    std::string out;
    out.reserve(raw.size());
    for (char c : raw) {
        const auto b = static_cast<unsigned char>(c);
        if (b == '\\') {
            out += "\\\\";
        } else if (b >= 0x20 && b < 0x7F) {
            out += c;
        } else {
            char hex[5];
            std::snprintf(hex, sizeof hex, "\\x%02X", b);
            out += hex;
        }
    }
    return out;
}

}  // namespace varnix::agent
