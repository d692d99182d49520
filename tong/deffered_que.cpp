// Deferred queue.
//
// One ring per process in a static block.  `rear` is the index of the slot
// filled last and is written only by producers, which are serialized by the
// capture lock tong_lock; `front` is the index of the slot taken last and is
// written only by the writer thread.  A producer fills its slot before it
// publishes `rear` (release), and the consumer reads `rear` (acquire) before
// it reads the slot.  The consumer publishes `front` (release) only after it
// is done with the previous slot, and producers read it (acquire) before they
// reuse that slot.  The slot at `front` is never written by a producer: that
// is exactly the full condition, so one slot always stays empty.
#include "tong/deffered_que.h"

#include <algorithm>
#include <atomic>
#include <cstring>

namespace varnix {
namespace {

struct DeferredQue {
    std::atomic<uint32_t> front;
    std::atomic<uint32_t> rear;
    DeferredSlot slot[kDeferredSlots];
};

DeferredQue que_pool;

bool is_full(uint32_t rear) { return que_pool.front.load(std::memory_order_acquire) == ((rear + 1) & kDeferredMask); }

bool is_empty(uint32_t front) { return que_pool.rear.load(std::memory_order_acquire) == front; }

}  // namespace

int create_deffered_que(int /*que_no: only queue 0 exists*/) {
    que_pool.front.store(0, std::memory_order_relaxed);
    que_pool.rear.store(0, std::memory_order_release);
    return 1;
}

int detach_deffered_que() { return 0; }

int put_deffered_que(const void* data, int len, uint32_t kind) {
    uint32_t rear = que_pool.rear.load(std::memory_order_relaxed);
    if (is_full(rear)) return 0;
    uint32_t i = (rear + 1) & kDeferredMask;
    DeferredSlot& slot = que_pool.slot[i];
    slot.kind = kind;
    std::memcpy(slot.payload, data, std::clamp(len, 0, kDeferredPayload));
    que_pool.rear.store(i, std::memory_order_release);
    return 1;
}

const DeferredSlot* get_deffered_que() {
    uint32_t front = que_pool.front.load(std::memory_order_relaxed);
    if (is_empty(front)) return nullptr;
    front = (front + 1) & kDeferredMask;
    que_pool.front.store(front, std::memory_order_release);
    return &que_pool.slot[front];
}

uint32_t get_deffered_queueing() {
    uint32_t front = que_pool.front.load(std::memory_order_acquire);
    uint32_t rear = que_pool.rear.load(std::memory_order_acquire);
    return rear >= front ? rear - front : rear + kDeferredSlots - front;
}

}  // namespace varnix
