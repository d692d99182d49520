// Writers of the fixed-width fields of a trace record.  Every field is
// left-aligned, space-padded or cut to its width, and followed by one space;
// no terminating NUL is ever written into a record.
#pragma once

#include <cstdint>

namespace varnix {

// A text argument: pointer and length (-1 = NUL-terminated); null = blank.
struct Text {
    const char* p = nullptr;
    int32_t len = -1;
};

// With copy 0 only the padding and the trailing space are written.
void set_log_field(const char* src, int len, char* dst, int width, int copy);
inline void set_log_field(Text t, char* dst, int width) { set_log_field(t.p, t.len, dst, width, 1); }

// A number zero-padded to the field's width ("%0*ld"), cut to it as any
// text is, and the trailing space.
void put_number(char* dst, int width, int64_t v);

}  // namespace varnix
