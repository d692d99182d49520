#include "tong/deffered_que.h"
#include <pthread.h>
#include <sched.h>
#include <gtest/gtest.h>
#include <atomic>
#include <bit>
#include <cstring>
#include <vector>
#include "core/mutex.h"
#include "support/thread_group.h"

namespace varnix {
namespace {

constexpr uint32_t kCapacity = kDeferredSlots - 1;  // one slot always stays empty

// Who put it and in which order, with a check word that shows a torn copy.
struct Item {
    uint32_t producer, seq;
    uint64_t check;
    bool operator==(const Item&) const = default;
};
static_assert(sizeof(Item) == kDeferredPayload);

Item item(uint32_t producer, uint32_t seq) {
    return {producer, seq, (uint64_t{producer} << 32 | seq) * 0x9E3779B97F4A7C15u};
}

int put(uint32_t producer, uint32_t seq, uint32_t kind = kDeferredKindTong) {
    Item it = item(producer, seq);
    return put_deffered_que(&it, sizeof it, kind);
}

Item item_of(const DeferredSlot* slot) { return std::bit_cast<Item>(slot->payload); }

// Puts and takes n records, moving both indices n slots on.
void advance(uint32_t n) {
    for (uint32_t i = 0; i < n; ++i) ASSERT_TRUE(put(0, i) == 1 && get_deffered_que() != nullptr) << i;
}

TEST(DefferedQue, HoldsOneRecordLessThanItHasSlotsInFifoOrderAndWraps) {
    ASSERT_EQ(create_deffered_que(0), 1);
    for (uint32_t seq = 1; seq <= kCapacity; ++seq) ASSERT_EQ(put(7, seq, seq % 3 + 1), 1) << seq;
    EXPECT_EQ(put(8, 1), 0);  // full: refused, nothing changes
    EXPECT_EQ(get_deffered_queueing(), kCapacity);
    for (uint32_t seq = 1; seq <= kCapacity; ++seq) {
        const DeferredSlot* slot = get_deffered_que();
        ASSERT_TRUE(slot && slot->kind == seq % 3 + 1 && item_of(slot) == item(7, seq)) << seq;
        EXPECT_TRUE(seq > 1 || (put(9, 1) == 1 && put(9, 2) == 0));  // one get makes room for exactly one put
    }
    EXPECT_TRUE(item_of(get_deffered_que()) == item(9, 1));
    EXPECT_EQ(get_deffered_que(), nullptr);

    // Detaching leaves the records waiting; creating empties the queue.
    ASSERT_EQ(put(1, 1), 1);
    EXPECT_EQ(detach_deffered_que(), 0);
    EXPECT_EQ(get_deffered_queueing(), 1u);
    EXPECT_EQ(create_deffered_que(0), 1);
    EXPECT_EQ(get_deffered_queueing(), 0u);
    EXPECT_EQ(get_deffered_que(), nullptr);

    // Indices wrap; a put copies only the given bytes.
    ASSERT_EQ(put_deffered_que("0123456789abcdefXYZ", 20, 5), 1);  // cut to the slot
    const DeferredSlot* slot1 = get_deffered_que();  // the first record after creating goes to slot 1
    ASSERT_NE(slot1, nullptr);
    advance(kDeferredSlots - 2);  // front and rear now at the last slot
    ASSERT_EQ(put(1, 3), 1);
    ASSERT_EQ(put_deffered_que("ABCD", 4, kDeferredKindTong), 1);
    EXPECT_EQ(get_deffered_queueing(), 2u);  // the rear is behind the front
    EXPECT_EQ(get_deffered_que(), slot1 - 1);
    EXPECT_EQ(get_deffered_que(), slot1);  // that slot again, with only four bytes rewritten
    EXPECT_EQ(std::memcmp(slot1->payload, "ABCD456789abcdef", kDeferredPayload), 0);
    // A negative length copies nothing.
    advance(kDeferredSlots - 1);
    ASSERT_EQ(put_deffered_que("zz", -1, 3), 1);
    ASSERT_EQ(get_deffered_que(), slot1);
    EXPECT_EQ(slot1->kind, 3u);
    EXPECT_EQ(std::memcmp(slot1->payload, "ABCD456789abcdef", kDeferredPayload), 0);
}

int locked_put(pthread_mutex_t& lock, uint32_t producer, uint32_t seq) {
    MutexGuard guard(lock);
    return guard.owns() ? put(producer, seq) : 0;
}

// Producers serialize their puts with one lock, as the capture path does; the single consumer takes without
// a lock.  It first keeps up, taking each record just after it is published (the case that needs the ordering
// between filling a slot and publishing it), then pauses until the ring is full for the producers to meet.
TEST(DefferedQue, ManyProducersOneConsumerEveryItemOnce) {
    constexpr uint32_t kProducers = 4, kPerProducer = 150000, kEagerTakes = 50000;
    static_assert(kProducers * kPerProducer - kEagerTakes > kCapacity);
    ASSERT_EQ(create_deffered_que(0), 1);
    pthread_mutex_t put_lock = PTHREAD_MUTEX_INITIALIZER;
    std::atomic<uint32_t> refused{0}, finished{0};
    test::ThreadGroup producers(kProducers, [&](uint32_t p) {
        for (uint32_t seq = 0; seq < kPerProducer; sched_yield()) {
            while (seq < kPerProducer && locked_put(put_lock, p, seq) == 1) ++seq;
            refused.fetch_add(seq < kPerProducer ? 1 : 0, std::memory_order_relaxed);
        }
        finished.fetch_add(1, std::memory_order_release);
    });
    std::vector<uint32_t> next(kProducers, 0);
    uint32_t taken = 0, out_of_order = 0;
    auto all_put = [&] { return finished.load(std::memory_order_acquire) == kProducers; };
    for (bool last_round = false; !last_round; sched_yield()) {
        last_round = all_put();  // then whatever is left is all there is
        while (const DeferredSlot* slot = get_deffered_que()) {
            const Item it = item_of(slot);
            const bool in_order = slot->kind == kDeferredKindTong && it.producer < kProducers &&
                                  it == item(it.producer, next[it.producer]);
            ++(in_order ? next[it.producer] : out_of_order);
            if (++taken == kEagerTakes)
                while (get_deffered_queueing() < kCapacity && !all_put()) sched_yield();
        }
    }
    producers.join();
    EXPECT_EQ(out_of_order, 0u);
    EXPECT_EQ(next, std::vector<uint32_t>(kProducers, kPerProducer));
    EXPECT_GT(refused.load(), 0u);
    EXPECT_EQ(get_deffered_queueing(), 0u);
}

}  // namespace
}  // namespace varnix
