// Thread contexts: buckets of ten, reclaiming of dead and released threads,
// registration in the process-thread table.
#include <sys/sem.h>
#include <sys/wait.h>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <ctime>
#include <latch>
#include <thread>
#include <tuple>

#include "context/get_ptrc_hash.h"
#include "context/ptrc_owner.h"
#include "context/ptrc_sem.h"
#include "core/gvar.h"
#include "core/mutex.h"
#include "support/drainer.h"
#include "support/service_calls.h"
#include "support/thread_group.h"
#include "support/tracing.h"

namespace varnix::test {
namespace {

using Lines = std::vector<std::string>;

// The value of entry n's owner semaphore: the number of processes holding it.
int owner(uint32_t n) {
    return semctl(TestIpc::get().collector().ids().ptrc_sem, VARNIX_PTRC_SEM_OWNER(n), GETVAL);
}

class MtrCxt : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(start_tracing(), 0); }
    void TearDown() override { stop_tracing(); }

    // `threads`: the bucket's count with the new context.
    static std::string created_line(uint64_t tid, int bucket, int threads) {
        const PTRC_HASH_TBL& t = *TestIpc::get().collector().ptrc();
        int n = -1;
        for (uint32_t i = 0; i < VARNIX_TBL_ENTRIES; ++i)
            if (t.entry[i].pid == getpid() && t.entry[i].tid == tid && t.entry[i].ptrc_state == VARNIX_PTRC_REGISTERED)
                n = static_cast<int>(i);
        return fmt("(I) ptrc_hash pid-tid created.(pid : %d, tid : %lu, mtr_tid_idx : %d(%d threads), arr_idx : %d), "
                   "used : %u(=%u)",
                   getpid(), static_cast<unsigned long>(tid), bucket, threads, n, t.used_cnt, t.used_cnt);
    }
};

// Caller-given ids are never probed: in a full bucket they go when released
// or idle for 30 s outside a service, 60 s inside one.
TEST_F(MtrCxt, TenPerBucketAndReleasedOrIdleEntriesAreReclaimed) {
    constexpr int kBucket = 7;
    auto tid_of = [](int k) { return static_cast<int32_t>((k << 8) | kBucket); };
    MTR_CXT_VAR* cxts[11] = {};
    for (int k = 1; k <= 10; ++k) ASSERT_EQ(get_mtr_cxt_var(tid_of(k), &cxts[k]), 0) << k;
    for (int k = 1; k <= 10; ++k) {  // all ten found again
        MTR_CXT_VAR* again = nullptr;
        ASSERT_EQ(get_mtr_cxt_var(tid_of(k), &again), 0);
        EXPECT_EQ(std::tuple(again, again->idx, again->ptrc->tid), std::tuple(cxts[k], kBucket, uint64_t(tid_of(k))));
    }
    LogTail log;
    MTR_CXT_VAR* eleventh = nullptr;
    EXPECT_EQ(get_mtr_cxt_var(tid_of(11), &eleventh), VARNIX_RC_NO_CONTEXT);
    EXPECT_EQ(log.take(), Lines{});
    // A bucket whose mutex stays busy past the bounded wait refuses with the same status, but says so (at most
    // once a second).
    {
        std::latch locked(1), release(1);
        std::thread holder([&] {
            const MutexGuard held(gvar.mtr_tid_idx[kBucket].mtr_lock);
            locked.count_down(), release.wait();
        });
        locked.wait();
        const auto t0 = std::chrono::steady_clock::now();
        for (int k : {1, 2}) EXPECT_EQ(get_mtr_cxt_var(tid_of(k), &eleventh), VARNIX_RC_NO_CONTEXT);
        const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(std::chrono::steady_clock::now() - t0);
        release.count_down(), holder.join();
        const Lines busy = log.take();
        ASSERT_FALSE(busy.empty());
        EXPECT_EQ(busy, Lines(busy.size(), "<!> mtr_tid_idx#7 mutex busy for 100 ms, thread context lookup deferred"));
        EXPECT_LE(busy.size(), 1u + seconds.count());
    }

    PTRC_HASH* released = cxts[3]->ptrc;
    released->ptrc_state = VARNIX_PTRC_RELEASE_ASKED;
    ASSERT_EQ(get_mtr_cxt_var(tid_of(11), &eleventh), 0);
    EXPECT_EQ(eleventh, cxts[3]);  // the freed slot is reused
    EXPECT_EQ(released->ptrc_state, VARNIX_PTRC_RELEASED);
    EXPECT_EQ(gvar.mtr_tid_idx[kBucket].mtr_cnt, 10);
    EXPECT_EQ(log.take(), (Lines{"(I) mtr_tid_idx#7-2, tid 775 (thread alive, ptrc 2) resource clear.(10->9)",
                                 created_line(tid_of(11), kBucket, 10)}));
    // Owner tokens: up once while the entry is held, however often it is
    // found; down once released.
    EXPECT_EQ(std::tuple(owner(released->pidx), owner(eleventh->ptrc->pidx)), std::tuple(0, 1));
    {
        PtrcSemGuard sem;
        EXPECT_EQ(get_ptrc_hash(sem.attach().tbl, sem.attach().semid, cxts[1]), cxts[1]->ptrc);
    }
    EXPECT_EQ(owner(cxts[1]->ptrc->pidx), 1);

    // Idle times from now: the steps above may take seconds on a loaded host.
    const std::time_t now = std::time(nullptr);
    cxts[5]->lasted_access = now - 31;
    cxts[6]->lasted_access = now - 59;
    cxts[6]->service_depth = 1;
    MTR_CXT_VAR* more = nullptr;
    ASSERT_EQ(get_mtr_cxt_var(tid_of(12), &more), 0);
    EXPECT_EQ(more, cxts[5]);
    EXPECT_EQ(log.take(), (Lines{"(I) mtr_tid_idx#7-3, tid 1287 (thread idle, ptrc 1) resource clear.(10->9)",
                                 created_line(tid_of(12), kBucket, 10)}));
    EXPECT_EQ(get_mtr_cxt_var(tid_of(13), &more), VARNIX_RC_NO_CONTEXT);
    cxts[6]->lasted_access -= 2;
    ASSERT_EQ(get_mtr_cxt_var(tid_of(13), &more), 0);
    EXPECT_EQ(more, cxts[6]);
    EXPECT_EQ(log.take(), (Lines{"(I) mtr_tid_idx#7-3, tid 1543 (thread idle, ptrc 1) resource clear.(10->9)",
                                 created_line(tid_of(13), kBucket, 10)}));

    // A forked child holds none of its parent's tokens: it takes its own,
    // which goes with it.
    const uint32_t held = cxts[1]->ptrc->pidx;
    const pid_t child = fork();
    if (child == 0) _exit(take_owner_token(gvar.ptrc_hash_semid, held) && owner(held) == 2 ? 0 : 1);
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(owner(held), 1);
}

TEST_F(MtrCxt, DeadThreadIsReclaimedOnTheNextMissOfItsBucket) {
    uint64_t dead = 0;
    std::thread([&] {
        MTR_CXT_VAR* cxt = nullptr;
        if (get_mtr_cxt_var(-1, &cxt) == 0) dead = cxt->tid;
    }).join();
    ASSERT_NE(dead, 0u);
    const int bucket = handle_bucket_of(dead);
    MTR_TID_IDX& b = gvar.mtr_tid_idx[bucket];
    int pos = 0;
    while (pos < b.mtr_cnt && b.mtr_idx_list[pos].tid != dead) ++pos;
    ASSERT_LT(pos, b.mtr_cnt);
    PTRC_HASH* entry = b.mtr_idx_list[pos].var->ptrc;
    const int count = b.mtr_cnt;

    // Another id of the same bucket misses and reclaims the dead thread.
    const uint64_t other = bucket != 0 ? (0x100000 | bucket) : 0x100000;
    ASSERT_EQ(bucket_of(other), bucket);
    LogTail log;
    MTR_CXT_VAR* cxt = nullptr;
    ASSERT_EQ(get_mtr_cxt_var(static_cast<int32_t>(other), &cxt), 0);
    EXPECT_EQ(log.take(), (Lines{"(i) thread killed. tid : " + std::to_string(dead),
                                 fmt("(I) mtr_tid_idx#%d-%d, tid %lu (thread killed, ptrc 1) resource clear.(%d->%d)",
                                     bucket, pos, static_cast<unsigned long>(dead), count, count - 1),
                                 created_line(other, bucket, count)}));
    EXPECT_EQ(entry->ptrc_state, VARNIX_PTRC_RELEASED);
    EXPECT_EQ(b.mtr_cnt, count);
}

// A new thread that gets an ended thread's handle does not inherit its open service.
TEST_F(MtrCxt, ReusedThreadHandleStartsFresh) {
    pthread_t first{};
    PTRC_HASH* old_entry = nullptr;
    std::thread([&] {
        const ServiceCall s{.gid = "ENDED-GID", .svc_id = "SVC-ENDED"};
        MTR_CXT_VAR* cxt = nullptr;
        if (call(TRAN_START, s) < VARNIX_MAX_QUE_CNT && get_mtr_cxt_var(-1, &cxt) == 0) old_entry = cxt->ptrc;
        first = pthread_self();
    }).join();
    ASSERT_NE(old_entry, nullptr);
    TestIpc::get().collector().drain();
    bool reused = false;
    MTR_CXT_VAR* fresh = nullptr;
    for (int i = 0; i < 20 && !reused; ++i) {
        std::thread([&] {
            if (!pthread_equal(pthread_self(), first)) return;
            reused = true;
            ASSERT_EQ(get_mtr_cxt_var(-1, &fresh), 0);
        }).join();
    }
    if (!reused) GTEST_SKIP() << "no thread got the ended thread's handle";
    ASSERT_NE(fresh, nullptr);
    EXPECT_EQ(fresh->service_depth, 0);
    EXPECT_EQ(fresh->log_bit, 0);
    EXPECT_NE(fresh->ptrc, old_entry);
    EXPECT_EQ(old_entry->ptrc_state, VARNIX_PTRC_RELEASED);
    EXPECT_EQ(fresh->ptrc->service_depth, 0);
}

// 256 threads in a service at once are all traced; caller-given ids keep their byte buckets.
TEST_F(MtrCxt, ManyThreadsSpreadOverTheBuckets) {
    constexpr int kThreads = 256;
    Drainer drainer;
    std::atomic<int> refused{0};
    std::latch in_service(kThreads);
    ThreadGroup threads(kThreads, [&](int t) {
        const ServiceCall s{.gid = "MANY-" + std::to_string(t), .svc_id = "SVC-MANY"};
        // A registration that gave up waiting for a busy table is tried
        // again by the next call; a full bucket would refuse every time.
        auto refused_now = [](int32_t rc) { return rc == VARNIX_RC_NO_CONTEXT || rc == VARNIX_RC_PTRC_FULL; };
        int32_t start = call(TRAN_START, s);
        for (int retry = 0; retry < 50 && refused_now(start); ++retry) {
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
            start = call(TRAN_START, s);
        }
        in_service.arrive_and_wait();
        for (int32_t rc : {start, call(TRAN_END, s)})
            if (refused_now(rc)) refused.fetch_add(1);
    });
    threads.join();
    EXPECT_EQ(refused.load(), 0);
    for (auto [id, bucket] : {std::pair{0x1200, 18}, {0x3400, 52}, {0x1201, 1}}) {
        MTR_CXT_VAR* cxt = nullptr;
        ASSERT_EQ(get_mtr_cxt_var(id, &cxt), 0);
        EXPECT_EQ(cxt->idx, bucket) << id;
    }
}

// A full table refuses without taking the bucket slot; a bucket's contexts
// can be listed; contexts come stamped with process and host.
TEST_F(MtrCxt, FullTableKeepsTheSlotFreeListingAndStamps) {
    PTRC_HASH_TBL& t = *TestIpc::get().collector().ptrc();
    const uint32_t free_cnt = t.free_stk.cnt;
    t.free_stk.cnt = 0;
    LogTail log;
    MTR_CXT_VAR* cxt = nullptr;
    EXPECT_EQ(get_mtr_cxt_var(0x0909, &cxt), VARNIX_RC_PTRC_FULL);
    EXPECT_EQ(gvar.mtr_tid_idx[9].mtr_cnt, 0);
    EXPECT_EQ(log.take(), Lines{});
    t.free_stk.cnt = free_cnt;
    // An owner token the set refuses (its semaphore at the largest value)
    // refuses the same, and the entry stays free.
    const uint32_t top = t.free_stk.idx[free_cnt - 1];
    const int sem = TestIpc::get().collector().ids().ptrc_sem;
    ASSERT_EQ(semctl(sem, VARNIX_PTRC_SEM_OWNER(top), SETVAL, 32767), 0);
    EXPECT_EQ(get_mtr_cxt_var(0x0909, &cxt), VARNIX_RC_PTRC_FULL);
    EXPECT_EQ(std::tuple(t.free_stk.cnt, t.free_stk.idx[free_cnt - 1]), std::tuple(free_cnt, top));
    ASSERT_EQ(semctl(sem, VARNIX_PTRC_SEM_OWNER(top), SETVAL, 0), 0);
    EXPECT_EQ(log.take(), Lines{});
    EXPECT_EQ(get_mtr_cxt_var(0x0909, &cxt), 0);
    EXPECT_EQ(owner(top), 1);
    log.take();  // the registration; the listing counts the bucket's one context
    testing::internal::CaptureStdout();
    show_mtr_idx_list(9);
    show_mtr_idx_list(256);  // no such bucket: nothing
    show_mtr_idx_list(-1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "------------------------------\n");
    EXPECT_EQ(log.take(), (Lines{"------>> mtr_idx_list (1) <<------", ">>idx arr[0] tid : 2313",
                                 ">>idx arr[0] var->pid : " + std::to_string(getpid()), ">>idx arr[0] var->tid : 2313",
                                 ">>idx arr[0] var->idx : 9", ">>idx arr[0] var->log_bit : 0",
                                 ">>idx arr[0] var->cxt_init_flag : 0", ">>idx arr[0] var->in_use : 1",
                                 ">>idx arr[0] var->lasted_access (sec): 0"}));

    ASSERT_EQ(get_mtr_cxt_var(-1, &cxt), 0);
    EXPECT_EQ(cxt->log_rec.mtype, 1);
    EXPECT_EQ(cxt->log_rec2.mtype, 1);
    for (const char* body : {cxt->log_body, cxt->log_body2}) {
        EXPECT_EQ(std::string_view(body + 73, 65), padded(gvar.host_name, 64) + " ");
        EXPECT_EQ(std::string_view(body + 138, 9), fmt("%08d ", getpid()));
    }
    EXPECT_EQ(std::string_view(cxt->log_body + 40, 16), padded(gvar.proc_nm, 15) + " ");
    EXPECT_EQ(std::string_view(cxt->log_body2 + 40, 16), std::string(16, ' '));
    EXPECT_EQ(cxt->svc_stack[0].gid[0], ' ');
    EXPECT_EQ(cxt->ktid, static_cast<pid_t>(gettid()));
}

// One write to the free stack (its top := an entry a thread holds) must not
// hand that entry out again; a thread whose entry another thread or process
// took over registers again instead of failing for good.
TEST_F(MtrCxt, EntryStillHeldIsNotHandedOutTwice) {
    PTRC_HASH_TBL& t = *TestIpc::get().collector().ptrc();
    MTR_CXT_VAR* mine = nullptr;
    ASSERT_EQ(get_mtr_cxt_var(-1, &mine), 0);
    PTRC_HASH* const held = mine->ptrc;
    const uint32_t n = held->pidx, free_cnt = t.free_stk.cnt, top = t.free_stk.idx[free_cnt - 1];
    const uint64_t own_tid = mine->tid;
    LogTail log;
    MTR_CXT_VAR* other = nullptr;
    // Held by this process; then, at the top again, registered and held by another.
    t.free_stk.idx[free_cnt - 1] = n;
    EXPECT_EQ(get_mtr_cxt_var(0x0B0B, &other), VARNIX_RC_PTRC_FULL);
    EXPECT_EQ(log.take(), Lines{fmt("<!> ptrc_hash free stack corrupt, arr_idx %u is in use (ptrc_state 1, pid %d, tid "
                                    "%lu), refused to (pid : %d, tid : 2827)",
                                    n, getpid(), static_cast<unsigned long>(own_tid), getpid())});
    PTRC_HASH& foreign = t.entry[top];  // the collector's mapping of it
    foreign.ptrc_state = VARNIX_PTRC_REGISTERED;
    const int sem = TestIpc::get().collector().ids().ptrc_sem;
    ASSERT_EQ(semctl(sem, VARNIX_PTRC_SEM_OWNER(top), SETVAL, 1), 0);
    t.free_stk.idx[free_cnt - 1] = top, t.free_stk.cnt = free_cnt;
    EXPECT_EQ(get_mtr_cxt_var(0x0B0B, &other), VARNIX_RC_PTRC_FULL);
    EXPECT_EQ(std::tuple(mine->ptrc, held->pid, held->tid, owner(n)), std::tuple(held, getpid(), own_tid, 1));
    // The table restored, registration goes on from the top.
    ASSERT_EQ(semctl(sem, VARNIX_PTRC_SEM_OWNER(top), SETVAL, 0), 0);
    foreign.ptrc_state = 0;
    t.free_stk.cnt = free_cnt;
    ASSERT_EQ(get_mtr_cxt_var(0x0B0B, &other), 0);
    EXPECT_EQ(other->ptrc->pidx, top);

    // Another thread's pid and id written over the entry: the next call
    // registers again, in a fresh entry, and the lost one's token goes back.
    held->tid = own_tid + 1;
    MTR_CXT_VAR* again = nullptr;
    ASSERT_EQ(get_mtr_cxt_var(-1, &again), 0);
    EXPECT_EQ(again, mine);
    ASSERT_NE(again->ptrc, held);
    EXPECT_EQ(std::tuple(again->ptrc->pid, again->ptrc->tid, owner(n), owner(again->ptrc->pidx)),
              std::tuple(getpid(), own_tid, 0, 1));
    EXPECT_EQ(std::string_view(again->log_body + 169, 6), fmt("%05u ", again->ptrc->pidx));
    ServiceCall s{.gid = "GID-AGAIN", .svc_id = "SVC-AGAIN"};
    EXPECT_LT(call(TRAN_START, s), 99);
    EXPECT_LT(call(TRAN_END, s), 99);
    TestIpc::get().collector().drain();
    log.take();  // the registrations
}

TEST(SetContNm, LastMatchingStringAfterTheFirstWins) {
    auto cont_nm = [](const char* block, size_t len) {
        char dest[31] = "unchanged";
        set_cont_nm(block, len, dest, "-Dname");
        return std::string(dest);
    };
    const char block[] = "java\0-Dname=first\0-Xmx1g\0-Dname=second=x\0\0-Dname=after";
    EXPECT_EQ(cont_nm(block, sizeof block - 1), "second=x");
    // The first string is never examined; an unterminated last one is bounded by the length.
    const char first_only[] = "-Dname=zero\0-Dname=0123456789012345678901234567890123456789";
    EXPECT_EQ(cont_nm(first_only, sizeof first_only - 1), "012345678901234567890123456789");
    EXPECT_EQ(cont_nm(first_only, 11), "unchanged");
    EXPECT_EQ(cont_nm(nullptr, 10), "unchanged");
}

}  // namespace
}  // namespace varnix::test
