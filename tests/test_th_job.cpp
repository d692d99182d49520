// Full-message writer.  Every scenario runs in a child process (support/in_child.h); the parent never starts a
// writer.  Files go inside this binary's test home.
#include <fcntl.h>
#include <pthread.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
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
#include "support/in_child.h"
#include "support/test_ipc.h"
#include "support/tong_file.h"
#include "tong/deffered_que.h"
#include "tong/th_job.h"
#include "tong/tong_slot.h"
#include "varnix.h"

namespace varnix {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using namespace test;

constexpr size_t kBig = 4u << 20;  // a leaked buffer of this size shows in the heap

std::string local_date(const char* fmt) {
    std::time_t now = std::time(nullptr);
    std::tm tm{};
    char buf[32];
    return localtime_r(&now, &tm) && std::strftime(buf, sizeof buf, fmt, &tm) ? buf : "";
}

std::string make_dir() {
    std::string tmpl = TestIpc::get().dir() + "/writer-XXXXXX";
    return mkdtemp(tmpl.data()) ? tmpl : "";
}

// A record as the capture side builds it: header, telegram, line feed.
std::string record(size_t n, char fill) { return std::string(117, 'H') + std::string(n, fill) + '\n'; }
void put_slot(int32_t len, char* buf, uint32_t kind = kDeferredKindTong) {
    TongSlot slot{len, buf};
    ASSERT_EQ(put_deffered_que(&slot, sizeof slot, kind), 1);
}

// A heap copy for the writer to free; records hold no NUL, so strdup copies them whole.
void put_record(const std::string& bytes) { put_slot(static_cast<int32_t>(bytes.size()), strdup(bytes.c_str())); }
char* big_buffer() { return static_cast<char*>(std::calloc(kBig, 1)); }

bool heap_back_to(size_t base) { return wait_for([&] { return live_heap_bytes() < base + kBig / 4; }); }
// Acquire: the writer's reset at an open follows its reading of the home.
int32_t failcount() { return __atomic_load_n(&nfailcount, __ATOMIC_ACQUIRE); }
void set_failcount(int32_t v) { __atomic_store_n(&nfailcount, v, __ATOMIC_RELAXED); }

void set_home(const std::string& dir) { std::snprintf(tong_log_home_dir, sizeof tong_log_home_dir, "%s", dir.c_str()); }
void start_writer(const std::string& home) {
    set_home(home);
    std::snprintf(gvar.proc_nm, sizeof gvar.proc_nm, "tproc");
    create_deffered_que(0);
    gvar.init_mark.store(kInitMarkReady);
    ASSERT_EQ(start_th_job(), 0);
}

// One writer's day, then the next (zones 26 hours apart never share a date), whose file is named after the
// container.  Records are dropped, and freed, while the directory is missing or the path would exceed 127
// characters; a failed open still counts as an open.  A short write is reported on standard error.
TEST(ThJob, AppendsRecordsToTheDaysFileAndDropsWhatItCannotPlace) {
    in_child([] {
        umask(022);
        ASSERT_EQ(setenv("TZ", "WST+12", 1), 0);
        tzset();
        const std::string root = make_dir(), err_path = root + "/stderr";
        ASSERT_EQ(dup2(open(err_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600), 2), 2);
        start_writer(root);
        const std::string path = tong_data_path();
        size_t base = live_heap_bytes();
        static char foreign[] = "foreign";  // not ours to free or write
        put_slot(sizeof foreign, foreign, 2);
        put_slot(0, big_buffer());
        put_slot(-1, big_buffer());
        put_slot(10, nullptr);
        std::string expect = record(10, 'a');
        put_record(expect);
        ASSERT_TRUE(wait_for([&] { return read_file(path) == expect; }));
        EXPECT_TRUE(heap_back_to(base));
        EXPECT_EQ(fs::status(path).permissions(), fs::perms(0666));
        // A teardown at once followed by a new initialization, and a start
        // without any teardown, each leave one writer, on the same file.
        set_failcount(5);
        const int threads = thread_count();
        gvar.init_mark.store(0);
        gvar.init_mark.store(kInitMarkReady);
        for (int start = 0; start < 2; ++start) {
            ASSERT_EQ(start_th_job(), 0);
            EXPECT_EQ(thread_count(), threads) << start;
        }
        for (int i = 100000; i < 120000; ++i) {
            expect += std::string(117, 'H') + std::to_string(i) + '\n';
            put_record(expect.substr(expect.size() - 124));
        }
        ASSERT_TRUE(wait_for([&] { return fs::file_size(path) >= expect.size(); }));
        EXPECT_TRUE(read_file(path) == expect);  // each record once, in order
        EXPECT_EQ(failcount(), 5);               // the file was not opened again
        ASSERT_EQ(setenv("TZ", "EST-14", 1), 0);
        tzset();
        std::snprintf(gvar.cont_nm, sizeof gvar.cont_nm, "cont01");
        const std::string name = tong_data_path().substr(root.size());  // the new day's, under the home
        const std::string home = root + "/" + std::string(127 - name.size() - root.size() - 1, 'd');
        const std::string next_path = home + name;
        ASSERT_EQ(next_path.size(), 127u);
        ASSERT_EQ(mkdir((home + "d").c_str(), 0755), 0);
        base = live_heap_bytes();
        for (const std::string& dir : {home, home + "d"}) {  // missing, too long
            set_failcount(3);
            set_home(dir);
            put_slot(kBig, big_buffer());
            EXPECT_TRUE(heap_back_to(base)) << dir;
            EXPECT_TRUE(wait_for([] { return failcount() == 0; })) << dir;  // before the home changes again
        }
        EXPECT_TRUE(fs::is_empty(home + "d"));
        ASSERT_EQ(mkdir(home.c_str(), 0755), 0);
        ASSERT_EQ(symlink("/dev/full", next_path.c_str()), 0);
        set_home(home);
        put_record(record(4, 'j'));
        put_record(record(4, 'k'));
        ASSERT_TRUE(wait_for([&] { return std::ranges::count(read_file(err_path), '\n') >= 2; }));
        int full_fd = -1;
        for (const auto& fd : fs::directory_iterator("/proc/self/fd")) {
            std::error_code ec;
            if (fs::read_symlink(fd.path(), ec) == "/dev/full") full_fd = std::stoi(fd.path().filename());
        }
        const std::string line = "[Varnix] TONG_LOG fwrite error 0 [fd:" + std::to_string(full_fd) + ", ";
        EXPECT_EQ(read_file(err_path), line + next_path + "]\n" + line + next_path + "]\n");
        EXPECT_EQ(read_file(path), expect);  // the old day's file is left alone
    });
}

// The writer is joined exactly once, by the host or by the next start, whoever
// comes first, and a cancel never waits for a join.
TEST(ThJob, JoinedOnceWhateverTheHostJoinsOrCancels) {
    in_child([] {
        std::string home = make_dir();
        ASSERT_EQ(open_log(home.c_str(), "writer", 0), 0);
        th_join_thread(), th_cancel_thread();  // none started yet: nothing to join, nothing logged
        const int threads = thread_count();
        start_writer(home);
        EXPECT_EQ(thread_count(), threads + 1);
        // A host joiner cancelled while it waits leaves nothing locked.
        pthread_t joiner;
        auto join = [](void*) -> void* { return th_join_thread(), nullptr; };
        ASSERT_EQ(pthread_create(&joiner, nullptr, join, nullptr), 0);
        std::this_thread::sleep_for(100ms);  // most likely waiting by now; either way the outcome is the same
        ASSERT_EQ(pthread_cancel(joiner), 0);
        gvar.init_mark.store(0);  // the writer ends, and the join with it
        ASSERT_EQ(pthread_join(joiner, nullptr), 0);
        EXPECT_EQ(thread_count(), threads);
        th_join_thread(), th_cancel_thread();  // already joined: neither logs
        gvar.init_mark.store(kInitMarkReady);
        ASSERT_EQ(start_th_job(), 0);
        std::thread host_join([] { th_join_thread(); });  // waits for a writer that runs on
        std::this_thread::sleep_for(100ms);
        th_cancel_thread();  // must not wait for that join
        host_join.join();
        EXPECT_EQ(thread_count(), threads);
        ASSERT_EQ(start_th_job(), 0);
        th_cancel_thread();
        ASSERT_EQ(start_th_job(), 0);  // joins the cancelled writer itself
        EXPECT_EQ(thread_count(), threads + 1);
        gvar.init_mark.store(0);
        th_join_thread();
        EXPECT_EQ(thread_count(), threads);
        const auto log = test::log_messages(read_file(home + "/writer-" + local_date("%Y-%m-%d") + "-log"), 0);
        EXPECT_EQ(std::count(log.begin(), log.end(), "(I) completed cancel main_thread"), 2);
        EXPECT_EQ(std::count(log.begin(), log.end(), "(I) completed join main_thread"), 3);
    });
}

}  // namespace
}  // namespace varnix
