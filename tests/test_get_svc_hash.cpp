// The one-at-a-time hash and the service table's lookup by service id.
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

// Values worked out apart from the library, step by step.
TEST(Hash, OneAtATime) {
    EXPECT_EQ(get_hash_code("a", 1), 0xCA2E9442u);
    EXPECT_EQ(get_hidx("a", 1, 0xFFFF), 0x9442u);
    EXPECT_EQ(get_hash_code("00004321140001234567890", 23), 0x64A118D5u);
    EXPECT_EQ(get_hidx("00004321140001234567890", 23, 0xFFFF), 0x18D5u);
    EXPECT_EQ(get_hash_code("\xE0", 1), 0x011D81FBu);  // bytes above 0x7F add as unsigned
    EXPECT_EQ(get_hash_code("", 0), 0u);
}

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

TEST_F(SvcHashTest, MatchesAllSixteenBytesOfAnInUseTable) {
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

// The walk of a chain stops after ten entries, at an entry number out of
// range, and never leaves the chain of the service's own bucket.
TEST_F(SvcHashTest, ChainWalkIsBounded) {
    const uint32_t bucket = bucket_of(kTarget);
    char other[17];
    for (int i = 0; i < 10; ++i) {
        std::snprintf(other, sizeof other, "OTHER%02d         ", i);
        add(other, bucket);
    }
    SVC_HASH* target = add(kTarget, bucket);
    EXPECT_EQ(find(kTarget), nullptr);  // 11th in its chain
    SVC_HASH& first = tbl_->entry[tbl_->svc_hash_idx[bucket]];
    tbl_->svc_hash_idx[bucket] = first.next;  // now the 10th
    EXPECT_EQ(find(kTarget), target);
    ASSERT_NE(bucket_of(other), bucket);
    EXPECT_EQ(find(other), nullptr);

    for (int32_t bad : {VARNIX_TBL_ENTRIES, -2}) {
        const int32_t head = tbl_->svc_hash_idx[bucket], second = tbl_->entry[head].next;
        tbl_->entry[head].next = bad;
        EXPECT_EQ(find(kTarget), nullptr) << bad;
        tbl_->entry[head].next = second;
        tbl_->svc_hash_idx[bucket] = bad;
        EXPECT_EQ(find(kTarget), nullptr) << bad;
        tbl_->svc_hash_idx[bucket] = head;
    }
    EXPECT_EQ(find(kTarget), target);
}

}  // namespace
}  // namespace varnix
