// The DBIO signature in the form a call's kind is told by: one 8-byte load of
// the function name against a mask and a value, where the signature lies in
// the name's first 8 bytes.
#pragma once

#include <cstdint>

namespace varnix {

// Characters of the configured name compared with a function's name.
inline constexpr int kDbioSignatureCompared = 7;

// The name's first 8 bytes v (little-endian) carry the signature when no
// byte of `live` is NUL and v & care == want.  Only where `fits`; else the
// name is compared character by character, and care and want are 0, so that
// the first test never tells a name apart.
struct DbioSignature {
    uint64_t care = 0;  // 0xFF at the configured characters
    uint64_t want = 0;  // those characters
    uint64_t live = 0;  // 0x80 at every byte the name must reach
    bool fits = false;
};

// `no`: the position of the signature in a name (negative: no name is DBIO);
// `nm`: its characters, NUL meaning any character (NUL-padded).  A name that
// reaches up to the last configured character carries it; with none
// configured, every name does.
constexpr DbioSignature compile_dbio_signature(int32_t no, const char* nm) {
    static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__);
    DbioSignature s;
    if (no < 0) return s;
    int span = 0;  // the configured characters end before no + span
    for (int i = 0; i < kDbioSignatureCompared; ++i)
        if (nm[i] != '\0') span = i + 1;
    if (no > 8 - span) return s;
    for (int i = 0; i < span; ++i) {
        const int at = 8 * (no + i);
        if (nm[i] != '\0') {
            s.care |= uint64_t{0xFF} << at;
            s.want |= uint64_t{static_cast<unsigned char>(nm[i])} << at;
        }
    }
    for (int j = 0; span > 0 && j < no + span; ++j) s.live |= uint64_t{0x80} << (8 * j);
    s.fits = true;
    return s;
}

}  // namespace varnix
