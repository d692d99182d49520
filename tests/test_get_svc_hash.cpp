// The one-at-a-time hash and the service table's lookup by service id.
#include "context/get_svc_hash.h"

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <utility>

#include "context/hash.h"
#include "context/tables.h"
#include "core/gvar.h"

namespace varnix {
namespace {

constexpr char kTarget[] = "SVC01           ";  // 16 bytes, space-padded

uint32_t bucket_of(const char* id16) { return get_hidx(id16, 16, 0xFFFF); }

// Values worked out apart from the library, step by step.
TEST(Hash, OneAtATime) {
    EXPECT_EQ(get_hash_code("a", 1), 0xCA2E9442u);
    EXPECT_EQ(get_hidx("00004321140001234567890", 23, 0xFFFF), 0x18D5u);
    EXPECT_EQ(get_hash_code("\xE0", 1), 0x011D81FBu);  // bytes above 0x7F add as unsigned
    EXPECT_EQ(get_hash_code("", 0), 0u);
}

// The walk of a chain stops after ten entries, at an entry number out of
// range, and never leaves the chain of the service's own bucket.
TEST(SvcHash, MatchesAllSixteenBytesWithinABoundedWalk) {
    auto tbl = std::make_unique<SVC_HASH_TBL>();
    ASSERT_EQ(init_svc_hash_tbl(*tbl), 0);
    SVC_HASH_TBL* const saved = std::exchange(gvar.svc_hash_tbl, tbl.get());
    MTR_CXT_VAR cxt{};
    auto find = [&](const char* id16) { return get_svc_hash(&cxt, id16); };
    // A free entry appended to the chain of `bucket`, whatever its id hashes to.
    auto add = [&](const char* id16, uint32_t bucket) {
        int32_t* link = &tbl->svc_hash_idx[bucket];
        while (*link != -1) link = &tbl->entry[*link].next;
        SVC_HASH& e = tbl->entry[*link = static_cast<int32_t>(svc_hash_pop(&tbl->svc_free_stk))];
        std::memcpy(e.svc_id, id16, 16);
        e.next = -1;
        ++tbl->svc_cnt;
        return &e;
    };
    const uint32_t bucket = bucket_of(kTarget);
    char other[] = "OTHER0          ";
    for (int i = 0; i < 10; ++i, ++other[5]) add(other, bucket);
    --other[5];  // OTHER9, still in the chain below
    SVC_HASH* target = add(kTarget, bucket);
    EXPECT_EQ(find(kTarget), nullptr);  // 11th in its chain
    tbl->svc_hash_idx[bucket] = tbl->entry[tbl->svc_hash_idx[bucket]].next;  // now the 10th
    EXPECT_EQ(find(kTarget), target);
    EXPECT_EQ(find(other), nullptr);  // another bucket's id
    EXPECT_EQ(find("SVC01          X"), nullptr);
    EXPECT_EQ(find(nullptr), nullptr);

    const int32_t head = tbl->svc_hash_idx[bucket];
    for (int32_t* link : {&tbl->entry[head].next, &tbl->svc_hash_idx[bucket]})
        for (int32_t bad : {VARNIX_TBL_ENTRIES, -2}) {
            const int32_t good = std::exchange(*link, bad);
            EXPECT_EQ(find(kTarget), nullptr) << bad;
            *link = good;
        }
    EXPECT_EQ(find(kTarget), target);
    // An empty or detached table is not searched, whatever its chains hold.
    tbl->svc_cnt = 0;
    EXPECT_EQ(find(kTarget), nullptr);
    tbl->svc_cnt = 1;
    gvar.svc_hash_tbl = nullptr;
    EXPECT_EQ(find(kTarget), nullptr);
    gvar.svc_hash_tbl = saved;
}

}  // namespace
}  // namespace varnix
