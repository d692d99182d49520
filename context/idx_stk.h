// Last-in first-out stacks of entry numbers: a u32 count followed by the
// numbers.  push returns the new count (-1 when full, nothing changed); pop
// returns the number on top (0xFFFFFFFF when empty).
//
// The stacks live in shared memory that other processes write, so a count
// beyond the capacity is possible; it reads as full for push and as empty for
// pop, and nothing outside the array is ever touched.
#pragma once

#include <cstdint>

namespace varnix {

inline constexpr uint32_t kIdxStkEmpty = 0xFFFFFFFFu;

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
    if (cnt == 0 || cnt > Capacity) return kIdxStkEmpty;
    return idx[--cnt];
}

// The same on any stack struct with `cnt` and `idx` members; a null stack is
// full and empty at once.
template <typename Stk>
int idx_stk_push(Stk* stk, uint32_t n) {
    return stk ? idx_stk_push(stk->cnt, stk->idx, n) : -1;
}

template <typename Stk>
uint32_t idx_stk_pop(Stk* stk) {
    return stk ? idx_stk_pop(stk->cnt, stk->idx) : kIdxStkEmpty;
}

}  // namespace varnix
