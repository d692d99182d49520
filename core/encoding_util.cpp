#include "core/encoding_util.h"

#include <cstring>

#include "varnix_collector.h"

namespace varnix {
namespace {

unsigned char byte_at(const char* text, int i) { return static_cast<unsigned char>(text[i]); }

bool is_continuation(unsigned char b) { return (b & 0xC0) == 0x80; }

}  // namespace

int hangul_euckr(const char* text, int /*len*/, int cut) {
    int k = 0;
    for (int p = cut - 1; p >= 0; --p, ++k) {
        unsigned char b = byte_at(text, p);
        if (b < 0xA1 || b > 0xFE) break;
        if (b <= 0xAF || b >= 0xC9) break;  // not a Hangul lead byte (0xB0..0xC8)
    }
    return cut - k;
}

int hangul_utf8(const char* text, int len, int cut) {
    int k = 0;
    for (int p = cut - 1; p >= 0 && (byte_at(text, p) & 0x80); --p, ++k) {
        bool lead3 = (byte_at(text, p) & 0xF0) == 0xE0;
        if (lead3 && len > p + 2 && is_continuation(byte_at(text, p + 1)) && is_continuation(byte_at(text, p + 2)))
            return k >= 2 ? p + 3 : p;
    }
    return cut - k;
}

}  // namespace varnix

extern "C" int hcut(const char* text, int len, int cut, int encoding) {
    if (!text || cut <= 0) return 0;
    // A text without a length is read no further than the rules look: two
    // bytes past the cut.
    int n = len < 0 ? static_cast<int>(strnlen(text, static_cast<size_t>(cut) + 2)) : len;
    if (cut >= n) return n;
    switch (encoding) {
        case varnix::kEncEucKr: return varnix::hangul_euckr(text, n, cut);
        case varnix::kEncUtf8: return varnix::hangul_utf8(text, n, cut);
        default: return 0;
    }
}
