// One-at-a-time hash used for the shared tables and for queue selection.
#pragma once

#include <cstdint>

namespace varnix {

uint32_t get_hash_code(const void* bytes, int len);
uint32_t get_hidx(const void* bytes, int len, uint32_t mask);

}  // namespace varnix
