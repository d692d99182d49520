#include "context/get_svc_hash.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>

#include "context/hash.h"
#include "context/tables.h"
#include "core/gvar.h"

namespace varnix {
namespace {

constexpr char kTarget[] = "SVC01           ";  // 16 bytes, space-padded

uint32_t bucket_of(const char* id16) { return get_hidx(id16, 16, 0xFFFF); }

class SvcHashTest : public ::testing::Test {
protected:
    void SetUp() override {
        tbl_ = static_cast<SVC_HASH_TBL*>(std::calloc(1, sizeof(SVC_HASH_TBL)));
        ASSERT_NE(tbl_, nullptr);
        init_svc_hash_tbl(*tbl_);
        saved_ = gvar.svc_hash_tbl;
        gvar.svc_hash_tbl = tbl_;
    }
    void TearDown() override {
        gvar.svc_hash_tbl = saved_;
        std::free(tbl_);
    }

    // What the collector does: a free entry, appended to the chain of `bucket`.
    SVC_HASH* add(const char* id16, uint32_t bucket) {
        uint32_t n = svc_hash_pop(&tbl_->svc_free_stk);
        SVC_HASH& e = tbl_->entry[n];
        std::memcpy(e.svc_id, id16, 16);
        e.pidx = n;
        e.hidx = bucket;
        e.next = -1;
        int32_t* link = &tbl_->svc_hash_idx[bucket];
        while (*link != -1) link = &tbl_->entry[*link].next;
        *link = static_cast<int32_t>(n);
        ++tbl_->svc_cnt;
        return &e;
    }
    SVC_HASH* find(const char* id16) { return get_svc_hash(&cxt_, id16); }

    SVC_HASH_TBL* tbl_ = nullptr;
    SVC_HASH_TBL* saved_ = nullptr;
    MTR_CXT_VAR cxt_{};
};

TEST_F(SvcHashTest, MatchesAllSixteenBytes) {
    EXPECT_EQ(find(kTarget), nullptr);
    SVC_HASH* e = add(kTarget, bucket_of(kTarget));
    EXPECT_EQ(find(kTarget), e);
    char unpadded[16] = "SVC01";
    EXPECT_EQ(find(unpadded), nullptr);
    EXPECT_EQ(find("SVC01          X"), nullptr);
    EXPECT_EQ(find(nullptr), nullptr);

    // An empty table is not searched, whatever its chains hold.
    tbl_->svc_cnt = 0;
    EXPECT_EQ(find(kTarget), nullptr);
    tbl_->svc_cnt = 1;
    gvar.svc_hash_tbl = nullptr;
    EXPECT_EQ(find(kTarget), nullptr);
}

TEST_F(SvcHashTest, SearchesTenEntriesOfAChain) {
    uint32_t bucket = bucket_of(kTarget);
    char other[17];
    for (int i = 0; i < 10; ++i) {
        std::snprintf(other, sizeof other, "OTHER%02d         ", i);
        add(other, bucket);
    }
    SVC_HASH* target = add(kTarget, bucket);
    EXPECT_EQ(find(kTarget), nullptr);  // 11th in its chain
    // One entry fewer in front of it and it is the 10th.
    tbl_->svc_hash_idx[bucket] = tbl_->entry[tbl_->svc_hash_idx[bucket]].next;
    EXPECT_EQ(find(kTarget), target);
    // A service is looked for in the chain of its own bucket only.
    ASSERT_NE(bucket_of(other), bucket);
    EXPECT_EQ(find(other), nullptr);
}

TEST_F(SvcHashTest, EntryNumbersOutOfRangeEndTheWalk) {
    uint32_t bucket = bucket_of(kTarget);
    SVC_HASH* first = add("FIRST           ", bucket);
    add(kTarget, bucket);
    for (int32_t bad : {VARNIX_TBL_ENTRIES, -2}) {
        int32_t good = first->next;
        first->next = bad;
        EXPECT_EQ(find(kTarget), nullptr) << bad;
        first->next = good;
        tbl_->svc_hash_idx[bucket] = bad;
        EXPECT_EQ(find(kTarget), nullptr) << bad;
        tbl_->svc_hash_idx[bucket] = static_cast<int32_t>(first->pidx);
    }
    EXPECT_NE(find(kTarget), nullptr);
}

}  // namespace
}  // namespace varnix
