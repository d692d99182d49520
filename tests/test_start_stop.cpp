// TRAN_INIT and TRAN_DONE in this test process against its collector.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <thread>

#include "core/gvar.h"
#include "core/start_stop.h"
#include "core/status.h"
#include "support/tracing.h"

namespace varnix::test {
namespace {

std::string today() {
    std::time_t now = std::time(nullptr);
    std::tm tm{};
    localtime_r(&now, &tm);
    char buf[16];
    std::strftime(buf, sizeof buf, "%Y%m%d", &tm);
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

TEST_F(StartStop, InitAnnouncesTheProcessWithEvent1508) {
    LogTail log;
    testing::internal::CaptureStdout();
    ASSERT_EQ(TRAN_INIT(), 0);
    std::string banner = testing::internal::GetCapturedStdout();
    EXPECT_EQ(gvar_cleared, 1);

    const std::string blank_gid(32, ' ');
    TRAN_LOG_MSG m{};
    const int q = queue_of_gid(blank_gid);
    ASSERT_EQ(TestIpc::get().collector().receive(m, q), q);
    const PTRC_HASH* e = entry_of(getpid(), 0);
    ASSERT_NE(e, nullptr);
    char pid8[16], pidx5[16], host[72];
    std::snprintf(pid8, sizeof pid8, "%08d", getpid());
    std::snprintf(pidx5, sizeof pidx5, "%05u", e->pidx);
    ASSERT_EQ(gethostname(host, sizeof host), 0);
    const std::string date = today();

    EXPECT_EQ(m.mtype, 1);
    EXPECT_EQ(body_len(m), 733u);
    EXPECT_EQ(body_field(m, 0, 7), "V      ");  // type, class, detail code
    EXPECT_EQ(body_field(m, 7, 33), blank_gid + " ");
    EXPECT_EQ(body_field(m, 40, 16), padded(gvar.proc_nm, 15) + " ");
    EXPECT_EQ(body_field(m, 56, 17), std::string(17, ' '));
    EXPECT_EQ(body_field(m, 73, 65), padded(host, 64) + " ");
    EXPECT_EQ(body_field(m, 138, 9), std::string(pid8) + " ");
    EXPECT_EQ(body_field(m, 147, 16), "000000000000000 ");
    EXPECT_EQ(body_field(m, 163, 6), "00000 ");
    EXPECT_EQ(body_field(m, 169, 6), std::string(pidx5) + " ");
    EXPECT_EQ(body_field(m, 175, 9), date + " ");
    EXPECT_EQ(body_field(m, 184, 13).find_first_not_of("0123456789"), 12u);
    EXPECT_EQ(body_field(m, 197, 23), "1508 " + std::string(18, ' '));
    const std::string text = "거래추적 대상 프로세스(" + std::string(gvar.proc_nm) + ")가 기동되었습니다.";
    EXPECT_EQ(body_field(m, 220, 513), padded(text, 512) + " ");
    EXPECT_EQ(body_field(m, 733, 780 - 733), std::string(780 - 733, ' '));
    EXPECT_EQ(e->qidx, q);

    EXPECT_EQ(banner.size(), 8u * 82);
    EXPECT_EQ(banner.substr(0, 82), std::string(81, '#') + "\n");
    EXPECT_EQ(banner.substr(7 * 82), std::string(81, '#') + "\n");
    for (int i = 1; i < 7; ++i) {
        std::string line = banner.substr(i * 82, 82);
        EXPECT_EQ(line.substr(0, 2), "##");
        EXPECT_EQ(line.substr(79), "##\n");
    }
    EXPECT_NE(banner.substr(6 * 82, 82).find("ver 8.0"), std::string::npos);

    const char* lang = std::getenv("LANG");
    char started[1024];
    std::snprintf(started, sizeof started,
                  "(I) [SHARED_LIB] TRAN_INIT [%s] complete.. [ MTR_TID_IDX(256) %zu bytes ] [ magic_code 0xaaaaaaaa,  "
                  "qcnt 4, log_flag_set 0xff, proc_nm : %s (%d), TRAN_LOGF_QUE_INFO 248 bytes, TRAN_LOGF_QUE_DATA 740 "
                  "bytes, GLOBAL_VAR %zu bytes, gvar_cleared 1, LANG %s ]",
                  kVersionBanner, sizeof gvar.mtr_tid_idx, gvar.proc_nm, getpid(), sizeof gvar, lang ? lang : "None");
    std::vector<std::string> lines = log.take();
    ASSERT_GE(lines.size(), 2u);
    EXPECT_EQ(lines[lines.size() - 2], started);
    EXPECT_EQ(lines.back(), "(I) API Process (" + std::string(gvar.proc_nm) + " / ) Start OK (ret 0)");
}

TEST_F(StartStop, SecondInitRefusesAndStopsTracingUntilRestarted) {
    ASSERT_EQ(start_tracing(), 0);
    LogTail log;
    EXPECT_EQ(TRAN_INIT(), VARNIX_RC_ALREADY_INIT);
    EXPECT_EQ(log.take(), std::vector<std::string>{"<!> already TRAN_INIT API initialized."});
    EXPECT_EQ(gvar_cleared, 2);
    EXPECT_EQ(TRAN_EVENT(-1, nullptr, 0, nullptr, 0, nullptr, 0, nullptr, 0, nullptr, 0, nullptr, 0, nullptr, 0, "1",
                         -1, nullptr, 0, nullptr, 0, nullptr, 0),
              VARNIX_RC_NOT_INIT);
    // Nothing was attached any more to detach, but the next start clears again.
    EXPECT_EQ(TRAN_DONE(), 0);
    EXPECT_EQ(gvar_cleared, 0);
    testing::internal::CaptureStdout();
    EXPECT_EQ(TRAN_INIT(), 0);
    testing::internal::GetCapturedStdout();
    EXPECT_EQ(gvar_cleared, 1);
    TestIpc::get().collector().drain();
}

TEST_F(StartStop, MissingEnvironmentFailsAndApisReport103) {
    std::string home = std::getenv("TRAN_HOME");
    ASSERT_EQ(unsetenv("TRAN_HOME"), 0);
    int rc = TRAN_INIT();
    ASSERT_EQ(setenv("TRAN_HOME", home.c_str(), 1), 0);
    EXPECT_EQ(rc, VARNIX_RC_NO_ENV);
    EXPECT_EQ(gvar.init_mark.load(), kInitMarkFailed);
    EXPECT_EQ(TRAN_EVENT(-1, nullptr, 0, nullptr, 0, nullptr, 0, nullptr, 0, nullptr, 0, nullptr, 0, nullptr, 0, "1",
                         -1, nullptr, 0, nullptr, 0, nullptr, 0),
              VARNIX_RC_NOT_INIT);
}

// TRAN_DONE detaches every context; a thread that was registered is marked
// as gone ('h'), the process context keeps its state.
TEST_F(StartStop, DoneDetachesContextsAndMarksThreadEntries) {
    ASSERT_EQ(start_tracing(), 0);
    uint64_t worker_tid = 0;
    std::thread([&] {
        worker_tid = static_cast<uint64_t>(pthread_self());
        TRAN_EVENT(-1, nullptr, 0, nullptr, 0, nullptr, 0, nullptr, 0, nullptr, 0, nullptr, 0, nullptr, 0, "1", -1,
                   nullptr, 0, nullptr, 0, nullptr, 0);
    }).join();
    TestIpc::get().collector().drain();
    PTRC_HASH* worker = const_cast<PTRC_HASH*>(entry_of(getpid(), worker_tid));
    const PTRC_HASH* process = entry_of(getpid(), 0);
    ASSERT_NE(worker, nullptr);
    ASSERT_NE(process, nullptr);
    worker->svc_state = 'r';
    const char process_state = process->svc_state;
    const std::time_t before = std::time(nullptr);

    LogTail log;
    ASSERT_EQ(TRAN_DONE(), 0);
    EXPECT_EQ(worker->svc_state, 'h');
    EXPECT_EQ(worker->saved_svc_state, 'r');
    EXPECT_EQ(process->svc_state, process_state);
    EXPECT_GE(worker->svc_mark_time, before);
    EXPECT_GE(process->svc_mark_time, before);
    EXPECT_EQ(gvar_cleared, 0);

    // Buckets are closed in order; in bucket 0 the process context (tid 0) sorts first.
    const int wb = bucket_of(worker_tid);
    const int in_bucket0 = wb == 0 ? 2 : 1;
    char process_line[256], worker_line[256];
    std::snprintf(process_line, sizeof process_line,
                  "(I) mtr_tid_idx[0000 - 1 of %d] pid(%d/%d)-tid(0/0) closed. get_ptrc[%u] is [ true - true ]",
                  in_bucket0, getpid(), getpid(), process->pidx);
    std::snprintf(worker_line, sizeof worker_line,
                  "(I) mtr_tid_idx[%04d - %d of %d] pid(%d/%d)-tid(%lu/%lu) closed. get_ptrc[%u] is [ true - true ]",
                  wb, wb == 0 ? 2 : 1, wb == 0 ? 2 : 1, getpid(), getpid(), static_cast<unsigned long>(worker_tid),
                  static_cast<unsigned long>(worker_tid), worker->pidx);
    // The log is closed before TRAN_DONE reports success, so that line is lost.
    const std::vector<std::string> expected = {
        process_line, worker_line,
        "(I) [SHARED_LIB] tran_destroy() [" + std::string(kVersionBanner) + "] complete.. proc_nm : " + gvar.proc_nm +
            " (" + std::to_string(getpid()) + ")"};
    EXPECT_EQ(log.take(), expected);
    EXPECT_EQ(TRAN_DONE(), 0);  // not started: nothing to do
}

// Another process traced against the same collector registers its own
// entries and sends its own records.
TEST_F(StartStop, TwoProcessesKeepSeparateEntries) {
    ASSERT_EQ(start_tracing(), 0);
    const PTRC_HASH_TBL& t = *TestIpc::get().collector().ptrc();
    const uint32_t used = t.used_cnt;
    std::FILE* child = popen(TRACED_CHILD, "r");
    ASSERT_NE(child, nullptr);
    std::string out;
    char buf[512];
    while (std::fgets(buf, sizeof buf, child)) out += buf;
    const int status = pclose(child);
    EXPECT_EQ(status, 0) << out;

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
    ASSERT_NE(entry_of(getpid(), 0), nullptr);

    const int event_q = queue_of_gid("CHILD-GID");
    EXPECT_NE(out.find("init 0 event " + std::to_string(event_q) + " done 0\n"), std::string::npos) << out;
    char pid8[16];
    std::snprintf(pid8, sizeof pid8, "%08d ", child_pid);
    TRAN_LOG_MSG m{};
    ASSERT_EQ(TestIpc::get().collector().receive(m, queue_of_gid("")), queue_of_gid(""));
    EXPECT_EQ(body_field(m, 197, 4), "1508");
    EXPECT_EQ(body_field(m, 138, 9), pid8);
    ASSERT_EQ(TestIpc::get().collector().receive(m, event_q), event_q);
    EXPECT_EQ(body_field(m, 197, 4), "7777");
    EXPECT_EQ(body_field(m, 138, 9), pid8);
    EXPECT_EQ(TestIpc::get().collector().drain(), 0);
}

}  // namespace
}  // namespace varnix::test
