// Full-message writer.  Every scenario runs in a child process of its own: a
// writer keeps its data file open for the rest of the day and the file name
// carries the process id, so each scenario needs a fresh process.  The parent
// never starts a writer and never changes the process block.  Files go to
// scenario directories inside this binary's test home, removed at exit.
#include <fcntl.h>
#include <pthread.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <string>
#include <thread>

#include "core/gvar.h"
#include "core/log_printf.h"
#include "core/status.h"
#include "support/test_ipc.h"
#include "tong/deffered_que.h"
#include "tong/th_job.h"
#include "tong/tong_slot.h"
#include "varnix.h"

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
// The sanitizer runtimes keep their own heap; GCC ships no header for this.
extern "C" size_t __sanitizer_get_current_allocated_bytes();
#else
#include <malloc.h>
#endif

namespace varnix {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using test::read_file;
using test::TestIpc;

constexpr size_t kBig = 4u << 20;  // a leaked buffer of this size shows in the heap

size_t live_heap_bytes() {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    return __sanitizer_get_current_allocated_bytes();
#else
    struct mallinfo2 mi = mallinfo2();
    return mi.uordblks + mi.hblkhd;
#endif
}

std::string local_date(const char* fmt) {
    std::time_t now = std::time(nullptr);
    std::tm tm{};
    localtime_r(&now, &tm);
    char buf[32];
    std::strftime(buf, sizeof buf, fmt, &tm);
    return buf;
}

// A fresh directory inside the test home.
std::string make_dir() {
    std::string tmpl = TestIpc::get().dir() + "/writer-XXXXXX";
    return mkdtemp(tmpl.data()) ? tmpl : "";
}

int thread_count() {
    return static_cast<int>(std::distance(fs::directory_iterator("/proc/self/task"), fs::directory_iterator()));
}

std::string data_path(const std::string& home, const std::string& name) {
    return home + "/tong_log_" + local_date("%Y%m%d") + "_" + name + "_" + std::to_string(getpid()) + ".dat";
}

std::string diag_log(const std::string& dir) { return read_file(dir + "/writer-" + local_date("%Y-%m-%d") + "-log"); }

int count_lines(const std::string& log, const std::string& msg) {
    int n = 0;
    for (size_t at = log.find("  " + msg + "\n"); at != std::string::npos; at = log.find("  " + msg + "\n", at + 1)) ++n;
    return n;
}

// A record as the capture side builds it: header, telegram, line feed.
std::string record(size_t n, char fill) { return std::string(117, 'H') + std::string(n, fill) + '\n'; }

void put_slot(int32_t len, char* buf, uint32_t kind = kDeferredKindTong) {
    TongSlot slot{len, buf};
    ASSERT_EQ(put_deffered_que(&slot, sizeof slot, kind), 1);
}

void put_record(const std::string& bytes) {
    char* buf = static_cast<char*>(std::malloc(bytes.size()));
    ASSERT_NE(buf, nullptr);
    std::memcpy(buf, bytes.data(), bytes.size());
    put_slot(static_cast<int32_t>(bytes.size()), buf);
}

char* big_buffer() { return static_cast<char*>(std::calloc(kBig, 1)); }

template <typename Pred>
bool wait_for(Pred done) {
    for (int i = 0; i < 3000 && !done(); ++i) std::this_thread::sleep_for(10ms);
    return done();
}

bool heap_back_to(size_t base) {
    return wait_for([&] { return live_heap_bytes() < base + kBig / 4; });
}

int32_t failcount() { return __atomic_load_n(&nfailcount, __ATOMIC_RELAXED); }
void set_failcount(int32_t v) { __atomic_store_n(&nfailcount, v, __ATOMIC_RELAXED); }

void start_writer(const std::string& home, const char* proc, const char* cont) {
    std::snprintf(tong_log_home_dir, sizeof tong_log_home_dir, "%s", home.c_str());
    std::snprintf(gvar.proc_nm, sizeof gvar.proc_nm, "%s", proc);
    std::snprintf(gvar.cont_nm, sizeof gvar.cont_nm, "%s", cont);
    create_deffered_que(0);
    gvar.init_mark.store(kInitMarkReady);
    ASSERT_EQ(start_th_job(), 0);
}

template <typename Scenario>
void in_child(Scenario scenario) {
    ASSERT_TRUE(TestIpc::get().ok());
    std::fflush(nullptr);
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        alarm(60);  // a writer that never ends fails the scenario instead of hanging it
        // Sanitizer runtimes add helper threads of their own with the first
        // thread a process starts; after that, thread counts are ours.
        std::thread([] {}).join();
        scenario();
        std::fflush(nullptr);
        _exit(testing::Test::HasFailure() ? 1 : 0);
    }
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "child status " << status;
}

TEST(ThJob, AppendsWholeRecordsToOneFilePerDay) {
    in_child([] {
        umask(022);
        std::string home = make_dir();
        start_writer(home, "tproc", "");
        set_failcount(7);
        std::string expect = record(10, 'a');
        put_record(expect);
        std::string path = data_path(home, "tproc");
        ASSERT_TRUE(wait_for([&] { return read_file(path).size() == 128; }));
        EXPECT_EQ(read_file(path), expect);
        EXPECT_EQ(failcount(), 0);
        struct stat st {};
        ASSERT_EQ(stat(path.c_str(), &st), 0);
        EXPECT_EQ(st.st_mode & 0777, 0666u);
        set_failcount(5);
        for (size_t n : {0, 70000}) {
            expect += record(n, 'b');
            put_record(record(n, 'b'));
        }
        ASSERT_TRUE(wait_for([&] { return read_file(path).size() == expect.size(); }));
        EXPECT_EQ(read_file(path), expect);
        EXPECT_EQ(failcount(), 5);  // the file was not opened again
        EXPECT_EQ(std::distance(fs::directory_iterator(home), fs::directory_iterator()), 1);
    });
}

TEST(ThJob, NamesTheFileAfterTheContainerFirst) {
    in_child([] {
        std::string home = make_dir();
        start_writer(home, "tproc", "cont01");
        put_record(record(1, 'c'));
        EXPECT_TRUE(wait_for([&] { return fs::exists(data_path(home, "cont01")); }));
        EXPECT_FALSE(fs::exists(data_path(home, "tproc")));
    });
}

TEST(ThJob, DropsRecordsWhileTheDirectoryIsMissing) {
    in_child([] {
        std::string home = make_dir() + "/later";
        size_t base = live_heap_bytes();
        start_writer(home, "tproc", "");
        set_failcount(7);
        for (int i = 0; i < 4; ++i) put_slot(kBig, big_buffer());
        EXPECT_TRUE(heap_back_to(base));
        EXPECT_EQ(failcount(), 0);  // a failed open still counts as an open
        ASSERT_EQ(mkdir(home.c_str(), 0755), 0);
        std::string r = record(3, 'd');
        put_record(r);
        EXPECT_TRUE(wait_for([&] { return read_file(data_path(home, "tproc")) == r; }));
    });
}

TEST(ThJob, SkipsForeignKindsAndEmptyRecords) {
    in_child([] {
        std::string home = make_dir();
        start_writer(home, "tproc", "");
        size_t base = live_heap_bytes();
        static char foreign[] = "foreign";  // freeing or writing it would show
        put_slot(sizeof foreign, foreign, 2);
        put_slot(0, big_buffer());
        put_slot(-1, big_buffer());
        put_slot(10, nullptr);
        std::string r = record(5, 'e');
        put_record(r);
        EXPECT_TRUE(wait_for([&] { return read_file(data_path(home, "tproc")) == r; }));
        EXPECT_TRUE(heap_back_to(base));
    });
}

TEST(ThJob, RefusesPathsOver127Characters) {
    for (size_t len : {127u, 128u}) {
        in_child([len] {
            std::string root = make_dir();
            size_t tail = data_path("", "p").size();
            std::string home = root + "/" + std::string(len - tail - root.size() - 1, 'd');
            ASSERT_EQ(mkdir(home.c_str(), 0755), 0);
            ASSERT_EQ(data_path(home, "p").size(), len);
            size_t base = live_heap_bytes();
            start_writer(home, "p", "");
            put_slot(kBig, big_buffer());
            EXPECT_TRUE(heap_back_to(base));
            if (len == 127)
                EXPECT_EQ(read_file(data_path(home, "p")).size(), kBig);
            else
                EXPECT_TRUE(fs::is_empty(home));
        });
    }
}

TEST(ThJob, EndsAfterTeardownAndIsJoinedOnce) {
    in_child([] {
        std::string home = make_dir();
        ASSERT_EQ(open_log(home.c_str(), "writer", 0), 0);
        th_join_thread();    // none started yet: nothing to join, nothing logged
        th_cancel_thread();  // likewise
        const int threads = thread_count();
        start_writer(home, "tproc", "");
        EXPECT_EQ(thread_count(), threads + 1);
        gvar.init_mark.store(0);
        th_join_thread();
        EXPECT_EQ(thread_count(), threads);
        th_join_thread();    // already joined
        th_cancel_thread();  // likewise
        std::string log = diag_log(home);
        EXPECT_EQ(count_lines(log, "(I) completed join main_thread"), 1) << log;
        EXPECT_EQ(log.find("cancel"), std::string::npos) << log;
    });
}

TEST(ThJob, CancelledWriterIsJoinedByTheHostOrTheNextStart) {
    in_child([] {
        std::string home = make_dir();
        ASSERT_EQ(open_log(home.c_str(), "writer", 0), 0);
        const int threads = thread_count();
        start_writer(home, "tproc", "");
        std::thread host_join([] { th_join_thread(); });  // waits for a writer that runs on
        std::this_thread::sleep_for(100ms);  // most likely waiting by now; either way the outcome is the same
        th_cancel_thread();  // must not wait for that join
        host_join.join();
        EXPECT_EQ(thread_count(), threads);
        ASSERT_EQ(start_th_job(), 0);
        th_cancel_thread();
        ASSERT_EQ(start_th_job(), 0);  // joins the cancelled writer itself
        EXPECT_EQ(thread_count(), threads + 1);
        std::string r = record(2, 'h');
        put_record(r);
        EXPECT_TRUE(wait_for([&] { return read_file(data_path(home, "tproc")) == r; }));
        gvar.init_mark.store(0);
        th_join_thread();
        std::string log = diag_log(home);
        EXPECT_EQ(count_lines(log, "(I) completed cancel main_thread"), 2) << log;
        EXPECT_EQ(count_lines(log, "(I) completed join main_thread"), 2) << log;
    });
}

void* join_writer(void*) {
    th_join_thread();
    return nullptr;
}

TEST(ThJob, HostJoinerCancelledWhileWaitingLeavesNothingLocked) {
    in_child([] {
        std::string home = make_dir();
        ASSERT_EQ(open_log(home.c_str(), "writer", 0), 0);
        const int threads = thread_count();
        start_writer(home, "tproc", "");
        pthread_t joiner;
        ASSERT_EQ(pthread_create(&joiner, nullptr, join_writer, nullptr), 0);
        std::this_thread::sleep_for(100ms);  // most likely waiting by now; either way the outcome is the same
        ASSERT_EQ(pthread_cancel(joiner), 0);
        gvar.init_mark.store(0);  // the writer ends, and the join with it
        ASSERT_EQ(pthread_join(joiner, nullptr), 0);
        EXPECT_EQ(thread_count(), threads);
        gvar.init_mark.store(kInitMarkReady);
        ASSERT_EQ(start_th_job(), 0);
        EXPECT_EQ(thread_count(), threads + 1);
        gvar.init_mark.store(0);
        th_join_thread();
        EXPECT_EQ(thread_count(), threads);
        EXPECT_EQ(count_lines(diag_log(home), "(I) completed join main_thread"), 2);
    });
}

TEST(ThJob, RestartLeavesExactlyOneConsumer) {
    in_child([] {
        std::string home = make_dir();
        start_writer(home, "tproc", "");
        std::string expect = record(1, 'i');
        put_record(expect);
        std::string path = data_path(home, "tproc");
        ASSERT_TRUE(wait_for([&] { return read_file(path) == expect; }));
        const int threads = thread_count();
        gvar.init_mark.store(0);  // teardown, at once followed by a new initialization
        gvar.init_mark.store(kInitMarkReady);
        create_deffered_que(0);
        ASSERT_EQ(start_th_job(), 0);
        EXPECT_EQ(thread_count(), threads);  // the old writer is gone, the new one runs
        ASSERT_EQ(start_th_job(), 0);        // also without any teardown in between
        EXPECT_EQ(thread_count(), threads);
        for (int i = 0; i < 20000; ++i) {
            std::string r = std::string(117, 'H') + std::to_string(100000 + i) + '\n';
            expect += r;
            put_record(r);
        }
        ASSERT_TRUE(wait_for([&] { return fs::file_size(path) >= expect.size(); }));
        EXPECT_TRUE(read_file(path) == expect);  // each record once, in order
    });
}

TEST(ThJob, ReportsAShortWriteOnStandardError) {
    in_child([] {
        std::string home = make_dir();
        std::string path = data_path(home, "tproc");
        ASSERT_EQ(symlink("/dev/full", path.c_str()), 0);
        std::string err_path = home + "/stderr";
        int err_fd = open(err_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        ASSERT_GE(err_fd, 0);
        ASSERT_EQ(dup2(err_fd, 2), 2);
        start_writer(home, "tproc", "");
        put_record(record(4, 'j'));
        put_record(record(4, 'k'));
        ASSERT_TRUE(wait_for([&] {
            std::string text = read_file(err_path);
            return std::count(text.begin(), text.end(), '\n') >= 2;
        }));
        int full_fd = -1;
        for (const auto& fd : fs::directory_iterator("/proc/self/fd")) {
            std::error_code ec;
            if (fs::read_symlink(fd.path(), ec) == "/dev/full") full_fd = std::stoi(fd.path().filename());
        }
        std::string line = "[Varnix] TONG_LOG fwrite error 0 [fd:" + std::to_string(full_fd) + ", " + path + "]\n";
        EXPECT_EQ(read_file(err_path), line + line);  // the file stays open for the next record
    });
}

TEST(ThJob, OpensANewFileWhenTheLocalDayChanges) {
    in_child([] {
        // Zones 26 hours apart never share a date.
        ASSERT_EQ(setenv("TZ", "WST+12", 1), 0);
        tzset();
        std::string home = make_dir();
        start_writer(home, "tproc", "");
        std::string first = record(1, 'l');
        put_record(first);
        std::string old_path = data_path(home, "tproc");
        ASSERT_TRUE(wait_for([&] { return read_file(old_path) == first; }));
        ASSERT_EQ(setenv("TZ", "EST-14", 1), 0);
        tzset();
        set_failcount(3);
        std::string second = record(1, 'm');
        put_record(second);
        std::string new_path = data_path(home, "tproc");
        ASSERT_NE(new_path, old_path);
        EXPECT_TRUE(wait_for([&] { return read_file(new_path) == second; }));
        EXPECT_EQ(read_file(old_path), first);
        EXPECT_EQ(failcount(), 0);
    });
}

}  // namespace
}  // namespace varnix
