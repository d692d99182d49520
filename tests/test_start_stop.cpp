// TRAN_INIT and TRAN_DONE in this test process against its collector: the
// start and stop themselves, stopping and restarting under load, forked
// children, and the collector's faults.
#include <gtest/gtest.h>
#include <sys/sem.h>
#include <sys/wait.h>
#include <unistd.h>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <thread>
#include "core/entry_gate.h"
#include "core/gvar.h"
#include "core/ipc.h"
#include "core/status.h"
#include "start/start_stop.h"
#include "support/drainer.h"
#include "support/in_child.h"
#include "support/service_calls.h"
#include "support/thread_group.h"
#include "support/tracing.h"

namespace varnix::test {
namespace {

using Lines = std::vector<std::string>;
using std::chrono::steady_clock;

int32_t event() {
    return TRAN_EVENT(-1, nullptr, 0, nullptr, 0, nullptr, 0, nullptr, 0, nullptr, 0, nullptr, 0, nullptr, 0, "1", -1,
                      nullptr, 0, nullptr, 0, nullptr, 0);
}

bool sent(int32_t rc) { return rc >= 0 && rc < VARNIX_MAX_QUE_CNT; }
// Sent, or refused by a queue that busy threads filled up.
bool traced(int32_t rc) { return sent(rc) || rc == VARNIX_RC_SEND_FAIL; }

int64_t ms_since(steady_clock::time_point t0) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(steady_clock::now() - t0).count();
}

// ThreadSanitizer cannot follow a process that forks while threads run.
#if defined(__SANITIZE_THREAD__)
constexpr bool kForksUnsupported = true;
#else
constexpr bool kForksUnsupported = false;
#endif

std::string today() {
    const std::time_t now = std::time(nullptr);
    char buf[16] = "";
    std::strftime(buf, sizeof buf, "%Y%m%d", std::localtime(&now));
    return buf;
}

const PTRC_HASH* entry_of(int pid, uint64_t tid) {
    const PTRC_HASH_TBL& t = *TestIpc::get().collector().ptrc();
    for (const PTRC_HASH& e : t.entry)
        if (e.pid == pid && e.tid == tid && e.ptrc_state == VARNIX_PTRC_REGISTERED) return &e;
    return nullptr;
}

class StartStop : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(TestIpc::get().ok());
        stop_tracing();
        TestIpc::get().reset();
    }
    void TearDown() override { stop_tracing(); }
};

// A start announced by event 1508, its banner and log lines, for this process and another; a stop closing every
// context.
TEST_F(StartStop, InitAnnouncesEachProcessAndDoneDetachesEveryContext) {
    LogTail log;
    std::string banner;
    ASSERT_EQ(init_quietly(&banner), 0);
    EXPECT_EQ(gvar_cleared, 1);

    const std::string blank_gid(32, ' ');
    const int q = queue_of_gid(blank_gid);
    const TRAN_LOG_MSG m = received(q);
    const PTRC_HASH* e = entry_of(getpid(), 0);
    ASSERT_NE(e, nullptr);
    EXPECT_EQ(e->qidx, q);
    char host[72];
    ASSERT_EQ(gethostname(host, sizeof host), 0);
    const std::string time(body_field(m, 184, 13));
    EXPECT_EQ(time.find_first_not_of("0123456789"), 12u);
    const std::string text = "거래추적 대상 프로세스(" + std::string(gvar.proc_nm) + ")가 기동되었습니다.";
    EXPECT_EQ(m.mtype, 1);
    EXPECT_EQ(body_len(m), 733u);
    EXPECT_EQ(body_field(m, 0, 780), "V      " + blank_gid + " " + padded(gvar.proc_nm, 15) + std::string(18, ' ') +
                                         padded(host, 64) + fmt(" %08d 000000000000000 00000 %05u ", getpid(), e->pidx) +
                                         today() + " " + time + "1508" + std::string(19, ' ') + padded(text, 512) +
                                         std::string(48, ' '));

    EXPECT_EQ(banner.size(), 8u * 82);
    for (int i = 0; i < 8; ++i) {
        const std::string line = banner.substr(i * 82, 82);
        if (i == 0 || i == 7)
            EXPECT_EQ(line, std::string(81, '#') + "\n");
        else
            EXPECT_TRUE(line.starts_with("##") && line.ends_with("##\n")) << line;
    }
    EXPECT_NE(banner.substr(6 * 82, 82).find("ver 8.0"), std::string::npos);

    const char* lang = std::getenv("LANG");
    const std::string started =
        fmt("(I) [SHARED_LIB] TRAN_INIT [%s] complete.. [ MTR_TID_IDX(256) %zu bytes ] [ magic_code 0xaaaaaaaa,  "
            "qcnt 4, log_flag_set 0xff, proc_nm : %s (%d), TRAN_LOGF_QUE_INFO 248 bytes, TRAN_LOGF_QUE_DATA 740 "
            "bytes, GLOBAL_VAR %zu bytes, gvar_cleared 1, LANG %s ]",
            kVersionBanner, sizeof gvar.mtr_tid_idx, gvar.proc_nm, getpid(), sizeof gvar, lang ? lang : "None");
    const Lines lines = log.take();
    ASSERT_GE(lines.size(), 2u);
    EXPECT_EQ(lines[lines.size() - 2], started);
    EXPECT_EQ(lines.back(), "(I) API Process (" + std::string(gvar.proc_nm) + " / ) Start OK (ret 0)");

    // Another process traced against the same collector registers its own entries and sends its own records.
    const PTRC_HASH_TBL& t = *TestIpc::get().collector().ptrc();
    const uint32_t used = t.used_cnt;
    std::FILE* child = popen(TRACED_CHILD, "r");
    ASSERT_NE(child, nullptr);
    std::string out;
    char buf[512];
    while (std::fgets(buf, sizeof buf, child)) out += buf;
    EXPECT_EQ(pclose(child), 0) << out;
    // The child registered its process context and its main thread.
    EXPECT_EQ(t.used_cnt, used + 2);
    int child_pid = 0, child_entries = 0;
    for (const PTRC_HASH& e : t.entry) {
        if (e.ptrc_state != VARNIX_PTRC_REGISTERED || e.pid == getpid() || e.pid == 0) continue;
        if (child_pid == 0) child_pid = e.pid;
        EXPECT_EQ(e.pid, child_pid);
        ++child_entries;
    }
    EXPECT_EQ(child_entries, 2);

    const int event_q = queue_of_gid("CHILD-GID");
    EXPECT_NE(out.find("init 0 event " + std::to_string(event_q) + " done 0\n"), std::string::npos) << out;
    const std::string pid8 = fmt("%08d ", child_pid);
    const TRAN_LOG_MSG child_start = received(queue_of_gid("")), child_event = received(event_q);
    EXPECT_EQ(body_field(child_start, 197, 4), "1508");
    EXPECT_EQ(body_field(child_start, 138, 9), pid8);
    EXPECT_EQ(body_field(child_event, 197, 4), "7777");
    EXPECT_EQ(body_field(child_event, 138, 9), pid8);
    EXPECT_EQ(TestIpc::get().collector().drain(), 0);

    // TRAN_DONE detaches every context; a registered thread is marked as gone ('h'), the process context keeps
    // its state.
    uint64_t worker_tid = 0;
    std::thread([&] {
        worker_tid = static_cast<uint64_t>(pthread_self());
        event();
    }).join();
    TestIpc::get().collector().drain();
    PTRC_HASH* worker = const_cast<PTRC_HASH*>(entry_of(getpid(), worker_tid));
    ASSERT_NE(worker, nullptr);
    worker->svc_state = 'r';
    const char process_state = e->svc_state;
    const std::time_t before = std::time(nullptr);

    log.take();  // from here on, only what the stop logs
    ASSERT_EQ(TRAN_DONE(), 0);
    EXPECT_EQ(worker->svc_state, 'h');
    EXPECT_EQ(worker->saved_svc_state, 'r');
    EXPECT_EQ(e->svc_state, process_state);
    EXPECT_GE(worker->svc_mark_time, before);
    EXPECT_GE(e->svc_mark_time, before);
    EXPECT_EQ(gvar_cleared, 0);

    // Buckets are closed in order; bucket 0 holds the process context (tid 0), which sorts first.  The log is
    // closed before TRAN_DONE reports success, so that line is lost.
    const int wb = handle_bucket_of(worker_tid), n = wb == 0 ? 2 : 1;
    const unsigned long wt = static_cast<unsigned long>(worker_tid);
    EXPECT_EQ(log.take(),
              (Lines{fmt("(I) mtr_tid_idx[0000 - 1 of %d] pid(%d/%d)-tid(0/0) closed. get_ptrc[%u] is [ true - true ]", n,
                         getpid(), getpid(), e->pidx),
                     fmt("(I) mtr_tid_idx[%04d - %d of %d] pid(%d/%d)-tid(%lu/%lu) closed. get_ptrc[%u] is [ true - true ]",
                         wb, n, n, getpid(), getpid(), wt, wt, worker->pidx),
                     fmt("(I) [SHARED_LIB] tran_destroy() [%s] complete.. proc_nm : %s (%d)", kVersionBanner,
                         gvar.proc_nm, getpid())}));
    EXPECT_EQ(TRAN_DONE(), 0);  // not started: nothing to do
}


// A stop while callers are inside lets them finish, refuses new ones and returns at once.  One that does not leave
// keeps the shared blocks attached: the stop fails at once instead of detaching under it, and the next start
// finishes the stop once the caller has left.  A restart right after a stop traces again.
TEST_F(StartStop, StopAndRestartWhileCallersAreInside) {
    ASSERT_EQ(start_tracing(), 0);
    {
        EntryGate stuck;
        LogTail log;
        const auto t0 = steady_clock::now();
        EXPECT_EQ(TRAN_DONE(), -1);
        EXPECT_LT(ms_since(t0), 1000);
        const Lines lines = log.take();
        ASSERT_FALSE(lines.empty());
        EXPECT_EQ(lines[0], "<!> tran_destroy() callers still inside after 80 ms, shared memory kept attached");
        EXPECT_EQ(TestIpc::get().que_info().magic_code, *gvar.magic_code);  // still attached
        EXPECT_EQ(event(), VARNIX_RC_NOT_INIT);
        EXPECT_EQ(init_quietly(), VARNIX_RC_NOT_INIT);
    }
    EXPECT_EQ(init_quietly(), 0);
    EXPECT_EQ(gvar_cleared, 1);
    EXPECT_TRUE(sent(event()));

    Drainer drainer;
    std::atomic<bool> stop{false};
    std::atomic<int32_t> unexpected{0};
    std::atomic<bool> deferred{false};
    ThreadGroup tracers(6, [&](int t) {
        ServiceCall s{.gid = "GID-" + std::to_string(t), .svc_id = "SVC-LOAD"};
        while (!stop.load()) {
            // A restart between a start and its end leaves the end without a service.  A registration after a
            // restart may find the table semaphore busy on a loaded machine (116, and a line that says so).
            for (int32_t rc : {call(TRAN_START, s), event(), call(TRAN_END, s)})
                if (rc == VARNIX_RC_PTRC_FULL)
                    deferred.store(true);
                else if (!traced(rc) && rc != VARNIX_RC_NOT_INIT && rc != VARNIX_RC_NO_SERVICE &&
                         rc != VARNIX_RC_SVC_DEPTH)
                    unexpected.store(rc);
        }
    });
    for (int i = 0; i < 20; ++i) {
        const auto t0 = steady_clock::now();
        // -1: a caller was kept from leaving in time (a busy machine), and
        // the stop stays pending until a start finds it gone.
        const int32_t done = TRAN_DONE();
        EXPECT_TRUE(done == 0 || done == -1);
        EXPECT_LT(ms_since(t0), 1000);
        EXPECT_EQ(event(), VARNIX_RC_NOT_INIT);
        int32_t init = init_quietly();
        for (int retry = 0; init == VARNIX_RC_NOT_INIT && retry < 20; ++retry) init = init_quietly();
        EXPECT_EQ(init, 0);
    }
    stop.store(true);
    tracers.join();
    EXPECT_EQ(unexpected.load(), 0);
    EXPECT_TRUE(!deferred.load() || TestIpc::get().read_log().find("semaphore busy for 50 ms") != std::string::npos);
}

// Servers that fork workers: a child is untraced and touches nothing of the parent's until it starts tracing
// itself, which then works at once, however busy the parent's threads were when it forked.
TEST_F(StartStop, ForkedProcesses) {
    if (kForksUnsupported) GTEST_SKIP() << "fork with running threads";
    ASSERT_EQ(start_tracing(), 0);
    ASSERT_TRUE(sent(event()));
    const PTRC_HASH* mine = entry_of(getpid(), static_cast<uint64_t>(pthread_self()));
    ASSERT_NE(mine, nullptr);
    const int8_t depth = mine->service_depth;
    const char state = mine->svc_state;
    Drainer drainer;
    std::atomic<bool> stop{false};
    ThreadGroup tracers(4, [&](int t) {
        ServiceCall s{.gid = "PARENT-" + std::to_string(t), .svc_id = "SVC-PARENT"};
        while (!stop.load()) {
            call(TRAN_START, s);
            event();
            call(TRAN_END, s);
        }
    });
    for (int i = 0; i < 8; ++i) {
        in_child([] {
            ServiceCall s{.gid = "CHILD", .svc_id = "SVC-CHILD"};
            EXPECT_EQ(call(TRAN_START, s), VARNIX_RC_NOT_INIT);
            ASSERT_EQ(TRAN_DONE(), 0);
            ASSERT_EQ(init_quietly(), 0);
            MTR_CXT_VAR* cxt = nullptr;
            ASSERT_EQ(get_mtr_cxt_var(-1, &cxt), 0);
            EXPECT_EQ(cxt->ptrc->pid, getpid());
            EXPECT_EQ(gvar.pid, getpid());
            EXPECT_TRUE(traced(call(TRAN_START, s)));
            EXPECT_TRUE(traced(call(TRAN_END, s)));
            EXPECT_EQ(TRAN_DONE(), 0);
            th_join_thread();
        });
    }
    stop.store(true);
    tracers.join();
    EXPECT_EQ(mine->service_depth, depth);
    EXPECT_EQ(mine->svc_state, state);

    // Another process holds the host-wide table semaphore and is killed inside a service: a newcomer's
    // registration gives up in time and succeeds once the kernel has undone the dead holder's lock; registered
    // threads trace on; the dead process's entries stay for the collector.
    int ready[2];
    ASSERT_EQ(pipe(ready), 0);
    const pid_t holder = fork();
    ASSERT_GE(holder, 0);
    if (holder == 0) {
        ServiceCall s{.gid = "HELD", .svc_id = "SVC-HELD"};
        const bool held = std::freopen("/dev/null", "w", stdout) && TRAN_DONE() == 0 && TRAN_INIT() == 0 &&
                          sent(call(TRAN_START, s)) && sem_lock(gvar.ptrc_hash_semid, 0, kSemUndo) == 0;
        if (write(ready[1], held ? "1" : "0", 1) == 1) pause();
        _exit(1);
    }
    char held = 0;
    ASSERT_EQ(read(ready[0], &held, 1), 1);
    EXPECT_EQ(held, '1');
    close(ready[0]), close(ready[1]);

    LogTail log;
    int32_t newcomer = 0;
    const auto t0 = steady_clock::now();
    std::thread([&] { newcomer = event(); }).join();
    EXPECT_EQ(newcomer, VARNIX_RC_PTRC_FULL);
    EXPECT_LT(ms_since(t0), 1000);
    EXPECT_TRUE(sent(event()));
    EXPECT_EQ(log.take(), Lines{"<!> ptrc_hash_tbl semaphore busy for 50 ms, thread registration deferred"});

    ASSERT_EQ(kill(holder, SIGKILL), 0);
    ASSERT_EQ(waitpid(holder, nullptr, 0), holder);
    EXPECT_EQ(semctl(gvar.ptrc_hash_semid, 0, GETVAL), 1);
    std::thread([&] { newcomer = event(); }).join();
    EXPECT_TRUE(sent(newcomer));

    int entries = 0, in_service = 0;
    for (const PTRC_HASH& e : TestIpc::get().collector().ptrc()->entry) {
        if (e.pid != holder || e.ptrc_state != VARNIX_PTRC_REGISTERED) continue;
        ++entries;
        in_service += e.service_depth == 1;
    }
    EXPECT_EQ(entries, 2);
    EXPECT_EQ(in_service, 1);
}

// A start without the environment or without a collector fails (the line names the missing block) and every
// API reports 103.  A second start refuses and stops tracing until the next stop and start; restarts do not wait
// out the writer thread's idle step (300 ms).  A magic code cleared while tracing stops every entry with 99 until
// restored.
TEST_F(StartStop, FailedRefusedAndRepeatedStartsAndCollectorFaults) {
    const std::string home = std::getenv("TRAN_HOME");
    ASSERT_EQ(unsetenv("TRAN_HOME"), 0);
    const int rc = TRAN_INIT();
    ASSERT_EQ(setenv("TRAN_HOME", home.c_str(), 1), 0);
    EXPECT_EQ(rc, VARNIX_RC_NO_ENV);
    EXPECT_EQ(gvar.init_mark.load(), kInitMarkFailed);
    EXPECT_EQ(event(), VARNIX_RC_NOT_INIT);

    TestIpc& ipc = TestIpc::get();
    kit::AgentConfig conf = ipc.default_config();
    conf.keys.que_info += kit::kKeysPerPid - 2;  // in this process's key block, created by nobody
    ASSERT_TRUE(ipc.write_config(conf));
    LogTail log;
    EXPECT_EQ(TRAN_INIT(), VARNIX_RC_NOT_INIT);
    ASSERT_TRUE(ipc.write_config(ipc.default_config()));
    const Lines lines = log.take();
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(lines.back(), "<!> tran_init fail, shared-memory initialize [TRAN_LOGF_QUE_INFO], errno : 2");
    EXPECT_EQ(event(), VARNIX_RC_NOT_INIT);

    ASSERT_EQ(start_tracing(), 0);
    log.take();  // the start's own lines
    EXPECT_EQ(TRAN_INIT(), VARNIX_RC_ALREADY_INIT);
    EXPECT_EQ(log.take(), Lines{"<!> already TRAN_INIT API initialized."});
    EXPECT_EQ(gvar_cleared, 2);
    EXPECT_EQ(event(), VARNIX_RC_NOT_INIT);
    // Nothing was attached any more to detach, but the next start clears again.
    const auto t0 = steady_clock::now();
    for (int i = 0; i < 5; ++i) {
        ASSERT_EQ(TRAN_DONE(), 0);
        EXPECT_EQ(gvar_cleared, 0);
        ASSERT_EQ(init_quietly(), 0);
        EXPECT_EQ(gvar_cleared, 1);
    }
    EXPECT_LT(ms_since(t0), 1000);

    ipc.que_info().magic_code = 0;
    ServiceCall s{.gid = "MAGIC", .svc_id = "SVC-MAGIC"};
    EXPECT_EQ(event(), VARNIX_RC_BAD_MAGIC);
    EXPECT_EQ(call(TRAN_START, s), VARNIX_RC_BAD_MAGIC);
    ipc.que_info().magic_code = VARNIX_MAGIC_CODE;
    EXPECT_TRUE(sent(call(TRAN_START, s)));
    EXPECT_TRUE(sent(call(TRAN_END, s)));
    ipc.collector().drain();
}

}  // namespace
}  // namespace varnix::test
