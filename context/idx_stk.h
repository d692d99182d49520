// Last-in first-out stacks of entry numbers: a u32 count followed by the
// numbers.  push returns the new count (-1 when full, nothing changed); pop
// returns the number on top (0xFFFFFFFF when empty).
#pragma once

#include <cstdint>

namespace varnix {

template <uint32_t Capacity>
struct IdxStk {
    uint32_t cnt;
    uint32_t idx[Capacity];
};

template <uint32_t Capacity>
int idx_stk_push(uint32_t& cnt, uint32_t (&idx)[Capacity], uint32_t n) {
    if (cnt >= Capacity) return -1;
    idx[cnt++] = n;
    return static_cast<int>(cnt);
}

template <uint32_t Capacity>
uint32_t idx_stk_pop(uint32_t& cnt, const uint32_t (&idx)[Capacity]) {
    if (cnt == 0 || cnt > Capacity) return 0xFFFFFFFFu;
    return idx[--cnt];
}

}  // namespace varnix
