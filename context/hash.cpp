#include "context/hash.h"

namespace varnix {

uint32_t get_hash_code(const void* bytes, int len) {
    const auto* p = static_cast<const unsigned char*>(bytes);
    uint32_t h = 0;
    for (int i = 0; i < len; ++i) {
        h += p[i];
        h += h << 10;
        h ^= h >> 6;
    }
    h += h << 3;
    h ^= h >> 11;
    h += h << 15;
    return h;
}

uint32_t get_hidx(const void* bytes, int len, uint32_t mask) { return get_hash_code(bytes, len) & mask; }

}  // namespace varnix
