#include "context/get_ptrc_hash.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <string>
#include <vector>

#include "context/hash.h"
#include "context/tables.h"
#include "core/gvar.h"
#include "support/log_capture.h"

namespace varnix {
namespace {

using Lines = std::vector<std::string>;
using test::LogCapture;

constexpr int32_t kPid = 4321;
constexpr uint64_t kTid = 140001234567890;
constexpr int32_t kIdx = 7;

// Initializing touches all 603 MB, so it is done once per binary.
PTRC_HASH_TBL* shared_table() {
    static PTRC_HASH_TBL* tbl = [] {
        auto* t = static_cast<PTRC_HASH_TBL*>(std::calloc(1, sizeof(PTRC_HASH_TBL)));
        if (t) init_ptrc_hash_tbl(*t);
        return t;
    }();
    return tbl;
}

// Back to the state of a fresh table as far as lookups can tell; entries keep
// their old bytes, which registration must overwrite.
void reset_index(PTRC_HASH_TBL& t) {
    t.used_cnt = 0;
    std::fill(std::begin(t.hash_idx), std::end(t.hash_idx), -1);
    t.used_stk.cnt = 0;
    t.free_stk.cnt = VARNIX_TBL_ENTRIES;
    for (uint32_t n = 0; n < VARNIX_TBL_ENTRIES; ++n) t.free_stk.idx[n] = n;
}

uint32_t bucket_of(int32_t pid, uint64_t tid) {
    char key[32];
    std::snprintf(key, sizeof key, "%08d%015lu", pid, static_cast<unsigned long>(tid));
    return get_hidx(key, 23, 0xFFFF);
}

std::string created_line(uint64_t tid, int threads, int n, int used) {
    char line[256];
    std::snprintf(line, sizeof line,
                  "(I) ptrc_hash pid-tid created.(pid : %d, tid : %lu, mtr_tid_idx : %d(%d threads), arr_idx : %d), "
                  "used : %d(=%d)",
                  kPid, static_cast<unsigned long>(tid), kIdx, threads, n, used, used);
    return line;
}

class PtrcHashTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(LogCapture::get().ok());
        tbl_ = shared_table();
        ASSERT_NE(tbl_, nullptr);
        reset_index(*tbl_);
        saved_.tbl = gvar.ptrc_hash_tbl;
        saved_.magic_code = gvar.magic_code;
        std::memcpy(saved_.proc_nm, gvar.proc_nm, sizeof saved_.proc_nm);
        std::memcpy(saved_.cont_nm, gvar.cont_nm, sizeof saved_.cont_nm);
        std::memcpy(saved_.db_user, gvar.db_user, sizeof saved_.db_user);
        std::memcpy(saved_.db_sid, gvar.db_sid, sizeof saved_.db_sid);
        saved_.mtr_cnt = gvar.mtr_tid_idx[kIdx].mtr_cnt;
        gvar.ptrc_hash_tbl = tbl_;
        que_.magic_code = VARNIX_MAGIC_CODE;
        gvar.magic_code = &que_.magic_code;
        std::memset(gvar.proc_nm, 'p', sizeof gvar.proc_nm);  // 31 bytes, no terminator
        std::snprintf(gvar.cont_nm, sizeof gvar.cont_nm, "cont01");
        std::snprintf(gvar.db_user, sizeof gvar.db_user, "scott");
        std::snprintf(gvar.db_sid, sizeof gvar.db_sid, "ORCL19");
        gvar.mtr_tid_idx[kIdx].mtr_cnt = 3;
        LogCapture::get().take();
    }
    void TearDown() override {
        gvar.ptrc_hash_tbl = saved_.tbl;
        gvar.magic_code = saved_.magic_code;
        std::memcpy(gvar.proc_nm, saved_.proc_nm, sizeof gvar.proc_nm);
        std::memcpy(gvar.cont_nm, saved_.cont_nm, sizeof gvar.cont_nm);
        std::memcpy(gvar.db_user, saved_.db_user, sizeof gvar.db_user);
        std::memcpy(gvar.db_sid, saved_.db_sid, sizeof gvar.db_sid);
        gvar.mtr_tid_idx[kIdx].mtr_cnt = saved_.mtr_cnt;
    }

    PTRC_HASH* reg(uint64_t tid, int32_t pid = kPid, int32_t idx = kIdx) {
        cxt_.pid = pid;
        cxt_.tid = tid;
        cxt_.idx = idx;
        return get_ptrc_hash(&cxt_);
    }
    PTRC_HASH& entry(int n) { return tbl_->entry[n]; }

    PTRC_HASH_TBL* tbl_ = nullptr;
    TRAN_LOGF_QUE_INFO que_{};
    MTR_CXT_VAR cxt_{};
    // The fields of gvar this test sets (gvar itself holds mutexes and atomics).
    struct {
        PTRC_HASH_TBL* tbl;
        uint32_t* magic_code;
        char proc_nm[31], cont_nm[31], db_user[11], db_sid[11];
        int32_t mtr_cnt;
    } saved_{};
};

TEST_F(PtrcHashTest, FirstRegistrationFillsEntry9999) {
    std::memset(&entry(9999), 0x5A, sizeof(PTRC_HASH));  // what an earlier owner left
    std::time_t before = std::time(nullptr);
    PTRC_HASH* e = reg(kTid);
    std::time_t after = std::time(nullptr);
    ASSERT_EQ(e, &entry(9999));
    EXPECT_EQ(tbl_->used_cnt, 1u);
    EXPECT_EQ(tbl_->used_stk.cnt, 1u);
    EXPECT_EQ(tbl_->used_stk.idx[0], 9999u);
    EXPECT_EQ(tbl_->free_stk.cnt, 9999u);
    uint32_t bucket = bucket_of(kPid, kTid);
    EXPECT_EQ(tbl_->hash_idx[bucket], 9999);

    ASSERT_GE(e->svc_mark_time, before);
    ASSERT_LE(e->svc_mark_time, after);
    auto want = std::make_unique<PTRC_HASH>();
    want->pidx = 9999;
    want->hidx = bucket;
    want->prev = -1;
    want->next = -1;
    want->reg_flag = '1';
    std::memset(want->proc_nm, 'p', 30);
    std::memcpy(want->cont_nm, "cont01", 6);
    std::memcpy(want->key_pid, "00004321", 8);
    std::memcpy(want->key_tid, "140001234567890", 15);
    std::memcpy(want->key_idx, "00007", 5);
    want->pid = kPid;
    want->tid = kTid;
    want->svc_state = 'd';
    want->ptrc_state = 1;
    want->svc_mark_time = e->svc_mark_time;
    std::memcpy(want->db_user, "scott", 5);
    std::memcpy(want->db_sid, "ORCL19", 6);
    const auto* got = reinterpret_cast<const unsigned char*>(e);
    const auto* exp = reinterpret_cast<const unsigned char*>(want.get());
    for (size_t i = 0; i < sizeof(PTRC_HASH); ++i) ASSERT_EQ(got[i], exp[i]) << "byte " << i;
    EXPECT_EQ(got[712], '1');

    EXPECT_EQ(LogCapture::get().take(), Lines{created_line(kTid, 4, 9999, 1)});

    // Found again while registered: no new entry, nothing logged; the bucket
    // digits of the key are not compared.
    EXPECT_EQ(reg(kTid), e);
    EXPECT_EQ(reg(kTid, kPid, 200), e);
    EXPECT_EQ(tbl_->used_cnt, 1u);
    EXPECT_EQ(tbl_->free_stk.cnt, 9999u);
    EXPECT_EQ(LogCapture::get().take(), Lines{});
}

TEST_F(PtrcHashTest, ReleasedEntriesArePassedOverAndNewOnesAppended) {
    PTRC_HASH* first = reg(kTid);
    ASSERT_EQ(first, &entry(9999));
    first->ptrc_state = VARNIX_PTRC_RELEASE_ASKED;
    PTRC_HASH* second = reg(kTid);
    ASSERT_EQ(second, &entry(9998));
    second->ptrc_state = VARNIX_PTRC_RELEASED;
    PTRC_HASH* third = reg(kTid);
    ASSERT_EQ(third, &entry(9997));

    uint32_t bucket = bucket_of(kPid, kTid);
    EXPECT_EQ(tbl_->hash_idx[bucket], 9999);
    EXPECT_EQ(first->prev, -1);
    EXPECT_EQ(first->next, 9998);
    EXPECT_EQ(second->prev, 9999);
    EXPECT_EQ(second->next, 9997);
    EXPECT_EQ(third->prev, 9998);
    EXPECT_EQ(third->next, -1);
    EXPECT_EQ(third->hidx, bucket);
    EXPECT_EQ(first->ptrc_state, VARNIX_PTRC_RELEASE_ASKED);  // left for the collector
    EXPECT_EQ(tbl_->used_cnt, 3u);
    ASSERT_EQ(tbl_->used_stk.cnt, 3u);
    EXPECT_EQ(tbl_->used_stk.idx[2], 9997u);
    EXPECT_EQ(LogCapture::get().take(),
              (Lines{created_line(kTid, 4, 9999, 1), created_line(kTid, 4, 9998, 2), created_line(kTid, 4, 9997, 3)}));
}

TEST_F(PtrcHashTest, ThreadsOfOneBucketShareAChain) {
    uint32_t bucket = bucket_of(kPid, kTid);
    uint64_t twin = kTid + 1;
    while (bucket_of(kPid, twin) != bucket) ++twin;
    uint64_t other = kTid + 1;
    while (bucket_of(kPid, other) == bucket) ++other;

    ASSERT_EQ(reg(kTid), &entry(9999));
    ASSERT_EQ(reg(twin), &entry(9998));
    ASSERT_EQ(reg(other), &entry(9997));
    EXPECT_EQ(tbl_->hash_idx[bucket], 9999);
    EXPECT_EQ(entry(9999).next, 9998);
    EXPECT_EQ(entry(9998).prev, 9999);
    EXPECT_EQ(entry(9998).next, -1);
    EXPECT_EQ(entry(9997).prev, -1);
    EXPECT_EQ(tbl_->hash_idx[bucket_of(kPid, other)], 9997);

    // Each thread finds its own entry, at the head or further down the chain.
    EXPECT_EQ(reg(twin), &entry(9998));
    EXPECT_EQ(reg(kTid), &entry(9999));
    // The same thread id in another process is another thread.
    EXPECT_EQ(reg(kTid, kPid + 1), &entry(9996));
    EXPECT_EQ(tbl_->used_cnt, 4u);
}

TEST_F(PtrcHashTest, FullTableYieldsNullSilently) {
    tbl_->free_stk.cnt = 0;
    EXPECT_EQ(reg(kTid), nullptr);
    // A number that cannot be an entry counts as no free entry.
    tbl_->free_stk.cnt = 1;
    tbl_->free_stk.idx[0] = VARNIX_TBL_ENTRIES;
    EXPECT_EQ(reg(kTid), nullptr);

    EXPECT_EQ(tbl_->used_cnt, 0u);
    EXPECT_EQ(tbl_->used_stk.cnt, 0u);
    EXPECT_EQ(tbl_->hash_idx[bucket_of(kPid, kTid)], -1);
    EXPECT_EQ(que_.magic_code, VARNIX_MAGIC_CODE);
    EXPECT_EQ(LogCapture::get().take(), Lines{});
}

TEST_F(PtrcHashTest, CorruptChainStopsTracing) {
    const std::string overflow = "<!> PTRC_HASH_ARR_SIZE overflow (pid : 4321, tid : 140001234567890), used : 1(=1)";
    uint32_t bucket = bucket_of(kPid, kTid);

    // A cycle: the released entry points at itself.
    PTRC_HASH* e = reg(kTid);
    ASSERT_EQ(e, &entry(9999));
    e->ptrc_state = VARNIX_PTRC_RELEASE_ASKED;
    e->next = 9999;
    LogCapture::get().take();
    EXPECT_EQ(reg(kTid), nullptr);
    EXPECT_EQ(que_.magic_code, 0u);
    EXPECT_EQ(tbl_->free_stk.cnt, 9999u);
    EXPECT_EQ(LogCapture::get().take(), Lines{overflow});

    // Entry numbers out of range, at the head and further down.
    for (int32_t bad : {VARNIX_TBL_ENTRIES, -2}) {
        que_.magic_code = VARNIX_MAGIC_CODE;
        e->next = bad;
        EXPECT_EQ(reg(kTid), nullptr) << bad;
        EXPECT_EQ(que_.magic_code, 0u) << bad;
        tbl_->hash_idx[bucket] = bad;
        que_.magic_code = VARNIX_MAGIC_CODE;
        EXPECT_EQ(reg(kTid), nullptr) << bad;
        EXPECT_EQ(que_.magic_code, 0u) << bad;
        tbl_->hash_idx[bucket] = 9999;
        EXPECT_EQ(LogCapture::get().take(), (Lines{overflow, overflow})) << bad;
    }

    // Without an attached control block there is only the message.
    gvar.magic_code = nullptr;
    EXPECT_EQ(reg(kTid), nullptr);
    EXPECT_EQ(LogCapture::get().take(), Lines{overflow});
}

TEST_F(PtrcHashTest, KeyLimits) {
    // A thread id wider than 15 digits keeps its low 15 digits in the key.
    const uint64_t wide = 12345678901234567890u;
    PTRC_HASH* e = reg(wide);
    ASSERT_EQ(e, &entry(9999));
    EXPECT_EQ(std::string(e->key_tid, 15), "678901234567890");
    EXPECT_EQ(e->reserved6, 0);
    EXPECT_EQ(e->tid, wide);
    EXPECT_EQ(tbl_->hash_idx[bucket_of(kPid, 678901234567890u)], 9999);
    EXPECT_EQ(LogCapture::get().take(), Lines{created_line(wide, 4, 9999, 1)});

    // Ids that cannot be keyed, or a context outside the bucket table.
    EXPECT_EQ(reg(kTid, 123456789), nullptr);
    EXPECT_EQ(reg(kTid, kPid, 256), nullptr);
    EXPECT_EQ(reg(kTid, kPid, -1), nullptr);
    EXPECT_EQ(get_ptrc_hash(nullptr), nullptr);
    gvar.ptrc_hash_tbl = nullptr;
    EXPECT_EQ(reg(kTid), nullptr);
    EXPECT_EQ(tbl_->used_cnt, 1u);
    EXPECT_EQ(LogCapture::get().take(), Lines{});
}

}  // namespace
}  // namespace varnix
