// Deferred queue: the ring that hands captured full-message records from the
// application threads to the single writer thread.
#pragma once

#include <cstdint>

namespace varnix {

inline constexpr uint32_t kDeferredSlots = 1u << 19;
inline constexpr uint32_t kDeferredMask = kDeferredSlots - 1;
inline constexpr int kDeferredPayload = 16;
inline constexpr uint32_t kDeferredKindTong = 1;  // a full-message record

struct DeferredSlot {
    uint32_t kind;
    alignas(8) unsigned char payload[kDeferredPayload];
};

int create_deffered_que(int que_no);
int detach_deffered_que();
// 1 when stored, 0 when the queue is full.  Producers hold tong_lock.
int put_deffered_que(const void* data, int len, uint32_t kind);
// The taken slot, valid until the next get; null when empty.  Writer thread only.
const DeferredSlot* get_deffered_que();
uint32_t get_deffered_queueing();

}  // namespace varnix
