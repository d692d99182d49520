#include "tong/deffered_que.h"

#include <pthread.h>
#include <sched.h>

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <thread>
#include <vector>

#include "core/mutex.h"

namespace varnix {
namespace {

constexpr uint32_t kCapacity = kDeferredSlots - 1;  // one slot always stays empty

// A payload that says who put it and in which order, with a check word that
// shows a torn copy.
struct Item {
    uint32_t producer;
    uint32_t seq;
    uint64_t check;
};
static_assert(sizeof(Item) == kDeferredPayload);

uint64_t check_of(uint32_t producer, uint32_t seq) { return (uint64_t{producer} << 32 | seq) * 0x9E3779B97F4A7C15u; }

int put(uint32_t producer, uint32_t seq, uint32_t kind = kDeferredKindTong) {
    Item item{producer, seq, check_of(producer, seq)};
    return put_deffered_que(&item, sizeof item, kind);
}

Item item_of(const DeferredSlot* slot) {
    Item item;
    std::memcpy(&item, slot->payload, sizeof item);
    return item;
}

// Puts and takes n records, moving both indices n slots on.
void advance(uint32_t n) {
    for (uint32_t i = 0; i < n; ++i) {
        ASSERT_EQ(put(0, i), 1);
        ASSERT_NE(get_deffered_que(), nullptr);
    }
}

TEST(DefferedQue, HoldsOneRecordLessThanItHasSlotsInFifoOrder) {
    ASSERT_EQ(create_deffered_que(0), 1);
    EXPECT_EQ(get_deffered_que(), nullptr);
    for (uint32_t seq = 1; seq <= kCapacity; ++seq) ASSERT_EQ(put(7, seq, seq % 3 + 1), 1) << seq;
    EXPECT_EQ(get_deffered_queueing(), kCapacity);
    EXPECT_EQ(put(8, 1), 0);  // full: refused, nothing changes
    EXPECT_EQ(get_deffered_queueing(), kCapacity);

    const DeferredSlot* first = get_deffered_que();
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(first->kind, 2u);
    EXPECT_EQ(item_of(first).seq, 1u);
    EXPECT_EQ(get_deffered_queueing(), kCapacity - 1);
    EXPECT_EQ(put(9, 1), 1);  // one get makes room for exactly one put
    EXPECT_EQ(put(9, 2), 0);
    for (uint32_t seq = 2; seq <= kCapacity; ++seq) {
        const DeferredSlot* slot = get_deffered_que();
        ASSERT_NE(slot, nullptr) << seq;
        Item item = item_of(slot);
        ASSERT_EQ(slot->kind, seq % 3 + 1) << seq;
        ASSERT_EQ(item.producer, 7u) << seq;
        ASSERT_EQ(item.seq, seq);
        ASSERT_EQ(item.check, check_of(7, seq)) << seq;
    }
    const DeferredSlot* last = get_deffered_que();
    ASSERT_NE(last, nullptr);
    EXPECT_EQ(item_of(last).producer, 9u);
    EXPECT_EQ(get_deffered_que(), nullptr);
    EXPECT_EQ(get_deffered_queueing(), 0u);

    // Detaching leaves the records waiting; creating empties the queue.
    ASSERT_EQ(put(1, 1), 1);
    EXPECT_EQ(detach_deffered_que(), 0);
    EXPECT_EQ(get_deffered_queueing(), 1u);
    EXPECT_EQ(create_deffered_que(0), 1);
    EXPECT_EQ(get_deffered_queueing(), 0u);
    EXPECT_EQ(get_deffered_que(), nullptr);
}

TEST(DefferedQue, IndicesWrapAndTheCountFollows) {
    ASSERT_EQ(create_deffered_que(0), 1);
    ASSERT_EQ(put(1, 1), 1);
    const DeferredSlot* slot1 = get_deffered_que();  // the first record goes to slot 1
    ASSERT_NE(slot1, nullptr);
    advance(kDeferredSlots - 2);  // front and rear now at the last slot
    ASSERT_EQ(put(1, 3), 1);
    ASSERT_EQ(put(1, 4), 1);
    EXPECT_EQ(get_deffered_queueing(), 2u);  // the rear is behind the front
    const DeferredSlot* slot0 = get_deffered_que();
    EXPECT_EQ(slot0, slot1 - 1);
    EXPECT_EQ(item_of(slot0).seq, 3u);
    EXPECT_EQ(get_deffered_queueing(), 1u);
    EXPECT_EQ(get_deffered_que(), slot1);
    EXPECT_EQ(item_of(slot1).seq, 4u);
    EXPECT_EQ(get_deffered_queueing(), 0u);
}

TEST(DefferedQue, PutCopiesOnlyTheGivenBytes) {
    ASSERT_EQ(create_deffered_que(0), 1);
    unsigned char pattern[kDeferredPayload];
    for (int i = 0; i < kDeferredPayload; ++i) pattern[i] = static_cast<unsigned char>(0xA0 + i);
    ASSERT_EQ(put_deffered_que(pattern, sizeof pattern, 5), 1);
    const DeferredSlot* slot = get_deffered_que();
    ASSERT_NE(slot, nullptr);
    // Each put below reuses that slot once the indices have gone round.
    advance(kDeferredSlots - 1);
    ASSERT_EQ(put_deffered_que("ABCD", 4, kDeferredKindTong), 1);
    ASSERT_EQ(get_deffered_que(), slot);
    EXPECT_EQ(slot->kind, kDeferredKindTong);
    std::memcpy(pattern, "ABCD", 4);
    EXPECT_EQ(std::memcmp(slot->payload, pattern, sizeof pattern), 0);

    // A payload longer than a slot is cut to the slot; a negative length copies nothing.
    advance(kDeferredSlots - 1);
    const char longer[] = "0123456789abcdefXYZ";
    ASSERT_EQ(put_deffered_que(longer, 20, 2), 1);
    ASSERT_EQ(get_deffered_que(), slot);
    EXPECT_EQ(std::memcmp(slot->payload, longer, kDeferredPayload), 0);
    advance(kDeferredSlots - 1);
    ASSERT_EQ(put_deffered_que("zz", -1, 3), 1);
    ASSERT_EQ(get_deffered_que(), slot);
    EXPECT_EQ(slot->kind, 3u);
    EXPECT_EQ(std::memcmp(slot->payload, longer, kDeferredPayload), 0);
}

// Producers serialize their puts with one lock, as the capture path does; the
// single consumer takes without a lock.  The consumer first keeps up with the
// producers, so it takes each record just after it is published (the case
// that needs the ordering between filling a slot and publishing it), then
// pauses until the ring is full, so the producers also meet the full queue.
TEST(DefferedQue, ManyProducersOneConsumerEveryItemOnce) {
    constexpr uint32_t kProducers = 4;
    constexpr uint32_t kPerProducer = 150000;
    constexpr uint32_t kEagerTakes = 50000;
    static_assert(kProducers * kPerProducer - kEagerTakes > kCapacity);
    ASSERT_EQ(create_deffered_que(0), 1);

    pthread_mutex_t put_lock = PTHREAD_MUTEX_INITIALIZER;
    std::atomic<uint32_t> refused{0};
    std::atomic<uint32_t> finished{0};
    std::vector<std::thread> producers;
    for (uint32_t p = 0; p < kProducers; ++p) {
        producers.emplace_back([p, &put_lock, &refused, &finished] {
            for (uint32_t seq = 0; seq < kPerProducer;) {
                int rc;
                {
                    MutexGuard guard(put_lock);
                    rc = guard.owns() ? put(p, seq) : 0;
                }
                if (rc == 1) {
                    ++seq;
                } else {
                    refused.fetch_add(1, std::memory_order_relaxed);
                    sched_yield();
                }
            }
            finished.fetch_add(1, std::memory_order_release);
        });
    }

    std::vector<uint32_t> next(kProducers, 0);
    uint32_t taken = 0;
    uint32_t out_of_order = 0;
    for (;;) {
        if (taken == kEagerTakes) {
            while (get_deffered_queueing() < kCapacity && finished.load(std::memory_order_acquire) < kProducers)
                sched_yield();
        }
        bool all_put = finished.load(std::memory_order_acquire) == kProducers;
        const DeferredSlot* slot = get_deffered_que();
        if (!slot) {
            if (all_put) break;
            sched_yield();
            continue;
        }
        ++taken;
        Item item = item_of(slot);
        if (slot->kind == kDeferredKindTong && item.producer < kProducers && item.seq == next[item.producer] &&
            item.check == check_of(item.producer, item.seq))
            ++next[item.producer];
        else
            ++out_of_order;
    }
    for (std::thread& t : producers) t.join();

    EXPECT_EQ(out_of_order, 0u);
    EXPECT_EQ(next, std::vector<uint32_t>(kProducers, kPerProducer));
    EXPECT_GT(refused.load(), 0u);
    EXPECT_EQ(get_deffered_que(), nullptr);
    EXPECT_EQ(get_deffered_queueing(), 0u);
}

}  // namespace
}  // namespace varnix
