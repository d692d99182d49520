#include "core/log_field.h"

#include <cstring>

#include "core/text_out.h"

namespace varnix {

void set_log_field(const char* src, int len, char* dst, int width, int copy) {
    if (!src) {
        std::memset(dst, ' ', static_cast<size_t>(width));
    } else {
        size_t w = static_cast<size_t>(width);
        // A text without a length is read no further than the field holds:
        // an unterminated buffer is cut, not run off.
        size_t n = len >= 0 ? static_cast<size_t>(len) : strnlen(src, w);
        if (n < w) {
            if (copy) std::memcpy(dst, src, n);
            std::memset(dst + n, ' ', w - n);
        } else if (copy) {
            std::memcpy(dst, src, w);
        }
    }
    dst[width] = ' ';
}

void put_number(char* dst, int width, int64_t v) {
    char buf[kNumberMax + 1];
    set_log_field(buf, write_zero_padded(buf, v, width), dst, width, 1);
}

}  // namespace varnix
