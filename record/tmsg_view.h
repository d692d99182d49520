// A telegram as the host hands it over: bytes nothing vouches for, with
// offsets and lengths from a table the host may rewrite at any time.  Every
// read of a telegram goes through TmsgView, which never reaches a byte at or
// past the telegram's length, whatever it is asked for.
#pragma once

#include <cstdint>
#include <cstring>

#include "core/log_field.h"

namespace varnix {

// The most a negative length measures: a telegram with no NUL among its
// first 999,999 bytes is taken to be that long.  It is also the most the six
// digits of a capture record can state as a length.
inline constexpr int32_t kTmsgMeasureMax = 999'999;

class TmsgView {
public:
    // len < 0: up to the first NUL, at most kTmsgMeasureMax bytes.  A null
    // telegram has no bytes.
    TmsgView(const char* p, int32_t len)
        : p_(p),
          n_(!p         ? 0
             : len >= 0 ? len
                        : static_cast<int32_t>(strnlen(p, kTmsgMeasureMax))) {}

    const char* data() const { return p_; }
    int32_t size() const { return n_; }
    bool has(int64_t pos) const { return pos >= 0 && pos < n_; }

    // The bytes [off, off + len) as far as they lie inside: a field partly
    // outside is cut at the end, one wholly outside (or of no length) is an
    // empty text, never a null one.
    Text span(int64_t off, int64_t len) const {
        if (!has(off) || len <= 0) return {"", 0};
        const int64_t room = n_ - off;
        return {p_ + off, static_cast<int32_t>(len < room ? len : room)};
    }
    // The same, ending at a NUL inside it: a field read as a C string.
    Text text(int64_t off, int64_t len) const {
        const Text t = span(off, len);
        return {t.p, static_cast<int32_t>(strnlen(t.p, static_cast<size_t>(t.len)))};
    }

private:
    const char* p_;
    int32_t n_;
};

}  // namespace varnix
