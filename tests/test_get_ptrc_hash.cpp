#include "context/get_ptrc_hash.h"

#include <gtest/gtest.h>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
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
constexpr int kNoSet = -1;  // a semaphore set id that names none

// The binary's one 603 MB table, initialized afresh by each test.
PTRC_HASH_TBL* const kTable = static_cast<PTRC_HASH_TBL*>(std::calloc(1, sizeof(PTRC_HASH_TBL)));

uint32_t bucket_of(int32_t pid, uint64_t tid) {
    char key[32];
    std::snprintf(key, sizeof key, "%08d%015lu", pid, static_cast<unsigned long>(tid));
    return get_hidx(key, 23, 0xFFFF);
}

class PtrcHashTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(LogCapture::get().ok() && tbl_);
        ASSERT_EQ(init_ptrc_hash_tbl(*tbl_), 0);
        que_.magic_code = VARNIX_MAGIC_CODE;
        keep(gvar.magic_code) = &que_.magic_code;
        std::memset(keep(gvar.proc_nm), 'p', sizeof gvar.proc_nm);  // 31 bytes, no terminator
        std::snprintf(keep(gvar.cont_nm), sizeof gvar.cont_nm, "cont01");
        std::snprintf(keep(gvar.db_user), sizeof gvar.db_user, "scott");
        std::snprintf(keep(gvar.db_sid), sizeof gvar.db_sid, "ORCL19");
        LogCapture::get().take();
    }
    void TearDown() override { for (auto& [field, bytes] : saved_) std::memcpy(field, bytes.data(), bytes.size()); }
    // Saves a field of gvar, restored after the test (gvar itself holds mutexes and atomics).
    template <typename T>
    T& keep(T& field) {
        saved_.emplace_back(&field, std::string(reinterpret_cast<const char*>(&field), sizeof field));
        return field;
    }
    PTRC_HASH* reg(uint64_t tid, int32_t pid = kPid, int32_t idx = kIdx) {
        cxt_.pid = pid, cxt_.tid = tid, cxt_.idx = idx;
        return get_ptrc_hash(tbl_, kNoSet, &cxt_);  // entries go out without owner tokens
    }
    PTRC_HASH& entry(int n) { return tbl_->entry[n]; }

    PTRC_HASH_TBL* const tbl_ = kTable;
    TRAN_LOGF_QUE_INFO que_{};
    MTR_CXT_VAR cxt_{};
    std::vector<std::pair<void*, std::string>> saved_;
};

TEST_F(PtrcHashTest, RegistrationFillsAnEntryAndChainsIt) {
    std::memset(&entry(9999), 0x5A, sizeof(PTRC_HASH));  // what an earlier owner left
    const std::time_t before = std::time(nullptr);
    PTRC_HASH* e = reg(kTid);
    ASSERT_EQ(e, &entry(9999));
    ASSERT_TRUE(e->svc_mark_time >= before && e->svc_mark_time <= std::time(nullptr));
    const uint32_t bucket = bucket_of(kPid, kTid);
    auto want = std::make_unique<PTRC_HASH>();
    want->pidx = 9999, want->hidx = bucket, want->prev = want->next = -1, want->reg_flag = '1';
    std::memset(want->proc_nm, 'p', 30);
    for (auto [field, text] : {std::pair<char*, std::string_view>{want->cont_nm, "cont01"}, {want->key_pid, "00004321"},
                               {want->key_tid, "140001234567890"}, {want->key_idx, "00007"}, {want->db_user, "scott"},
                               {want->db_sid, "ORCL19"}})
        std::memcpy(field, text.data(), text.size());
    want->pid = kPid, want->tid = kTid, want->svc_state = 'd', want->ptrc_state = 1;
    want->svc_mark_time = e->svc_mark_time;
    const auto* got = reinterpret_cast<const unsigned char*>(e);
    const auto* exp = reinterpret_cast<const unsigned char*>(want.get());
    for (size_t i = 0; i < sizeof(PTRC_HASH); ++i) ASSERT_EQ(got[i], exp[i]) << "byte " << i;
    EXPECT_EQ(LogCapture::get().take().size(), 1u);  // its text: the context tests
    // Found again while registered, silently; the bucket digits of the key are not compared.
    EXPECT_EQ(reg(kTid), e);
    EXPECT_EQ(reg(kTid, kPid, 200), e);
    EXPECT_EQ(LogCapture::get().take(), Lines{});

    // Released entries stay in the chain, passed over; threads of one bucket
    // share its chain, new ones appended.
    uint64_t twin = kTid + 1, other = kTid + 1;
    while (bucket_of(kPid, twin) != bucket) ++twin;
    while (bucket_of(kPid, other) == bucket) ++other;
    e->ptrc_state = VARNIX_PTRC_RELEASE_ASKED;
    ASSERT_EQ(reg(kTid), &entry(9998));
    entry(9998).ptrc_state = VARNIX_PTRC_RELEASED;
    ASSERT_EQ(reg(kTid), &entry(9997));
    ASSERT_EQ(reg(twin), &entry(9996));
    ASSERT_EQ(reg(other), &entry(9995));
    std::vector<int32_t> links{tbl_->hash_idx[bucket], tbl_->hash_idx[bucket_of(kPid, other)]};
    for (int n = 9999; n >= 9995; --n) links.insert(links.end(), {entry(n).prev, entry(n).next});
    EXPECT_EQ(links, (std::vector<int32_t>{9999, 9995, -1, 9998, 9999, 9997, 9998, 9996, 9997, -1, -1, -1}));
    EXPECT_EQ(e->ptrc_state, VARNIX_PTRC_RELEASE_ASKED);  // left for the collector
    // Each thread finds its own entry, at the head or further down the chain;
    // the same thread id in another process is another thread.
    EXPECT_EQ(reg(twin), &entry(9996));
    EXPECT_EQ(reg(kTid), &entry(9997));
    EXPECT_EQ(reg(kTid, kPid + 1), &entry(9994));
    EXPECT_TRUE(tbl_->used_cnt == 6u && tbl_->used_stk.idx[5] == 9994u);
    EXPECT_EQ(LogCapture::get().take().size(), 5u);
}

TEST_F(PtrcHashTest, BadKeysAndCorruptChainsYieldNull) {
    // A thread id wider than 15 digits keeps its low 15 digits in the key.
    const uint64_t wide = 12345678901234567890u;
    PTRC_HASH* e = reg(wide);
    ASSERT_EQ(e, &entry(9999));
    EXPECT_EQ(std::string(e->key_tid, 15), "678901234567890");
    EXPECT_EQ(e->reserved6, 0);
    EXPECT_EQ(tbl_->hash_idx[bucket_of(kPid, 678901234567890u)], 9999);
    // Ids that cannot be keyed, a context outside the bucket table, no table or
    // a free number that cannot be an entry: null, silently.
    for (auto [pid, idx] : {std::pair{123456789, kIdx}, {kPid, 256}, {kPid, -1}})
        EXPECT_EQ(reg(kTid, pid, idx), nullptr) << pid << " " << idx;
    EXPECT_EQ(get_ptrc_hash(tbl_, kNoSet, nullptr), nullptr);
    tbl_->free_stk.cnt = 1;
    tbl_->free_stk.idx[0] = VARNIX_TBL_ENTRIES;
    EXPECT_EQ(reg(kTid), nullptr);
    EXPECT_EQ(get_ptrc_hash(nullptr, kNoSet, &cxt_), nullptr);
    EXPECT_EQ(tbl_->used_cnt + tbl_->used_stk.cnt, 2u);
    EXPECT_EQ(que_.magic_code, VARNIX_MAGIC_CODE);
    EXPECT_EQ(LogCapture::get().take().size(), 1u);  // the wide id's registration only

    // A corrupt chain stops tracing: a cycle...
    const std::string overflow = "<!> PTRC_HASH_ARR_SIZE overflow (pid : 4321, tid : 140001234567890), used : 1(=1)";
    int32_t& head = tbl_->hash_idx[bucket_of(kPid, kTid)];
    head = 9999;
    e->next = 9999;
    EXPECT_EQ(reg(kTid), nullptr);
    EXPECT_EQ(que_.magic_code, 0u);
    EXPECT_EQ(LogCapture::get().take(), Lines{overflow});
    // ...or entry numbers out of range, at the head and further down.
    for (int32_t* link : {&e->next, &head})
        for (int32_t bad : {VARNIX_TBL_ENTRIES, -2}) {
            que_.magic_code = VARNIX_MAGIC_CODE;
            const int32_t good = std::exchange(*link, bad);
            EXPECT_TRUE(reg(kTid) == nullptr && que_.magic_code == 0) << bad;
            *link = good;
        }
    EXPECT_EQ(LogCapture::get().take().size(), 4u);
    // Without an attached control block there is only the message.
    gvar.magic_code = nullptr;
    EXPECT_EQ(reg(kTid), nullptr);
    EXPECT_EQ(LogCapture::get().take(), Lines{overflow});
}

}  // namespace
}  // namespace varnix
