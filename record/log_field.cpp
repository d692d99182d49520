#include "record/log_field.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>

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

void put_field(char* dst, int width, const char* fmt, ...) {
    char buf[128];
    va_list ap;
    va_start(ap, fmt);
    int n = std::vsnprintf(buf, sizeof buf, fmt, ap);
    va_end(ap);
    if (n < 0) n = 0;
    if (n >= static_cast<int>(sizeof buf)) n = sizeof buf - 1;
    set_log_field(buf, n, dst, width, 1);
}

}  // namespace varnix
