#include "core/clock.h"
#include "core/log_printf.h"

#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>
#include <gtest/gtest.h>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <string>
#include <vector>
#include "support/temp_dir.h"
#include "support/test_ipc.h"
#include "support/thread_group.h"

namespace varnix {
namespace {

using namespace test;

std::string local(std::time_t t, const char* fmt) {
    std::tm tm{};
    localtime_r(&t, &tm);
    char buf[64];
    std::strftime(buf, sizeof buf, fmt, &tm);
    return buf;
}

std::string log_name(const std::string& title) { return title + "-" + local(std::time(nullptr), "%Y-%m-%d") + "-log"; }

long files_in(const std::string& dir) {
    std::error_code ec;
    return std::distance(std::filesystem::directory_iterator(dir, ec), {});
}

unsigned mode_of(const std::string& path) {
    struct stat st {};
    return stat(path.c_str(), &st) == 0 ? st.st_mode & 07777 : 0xFFFF;
}

// Calls log_printf and checks the one line it appended to `path`: the message cut to 4095 bytes, stamped with
// the second before or after the call as log_printf reads it (time() can lag a second boundary by a tick).
void expect_logged(const std::string& path, const std::string& message) {
    const std::string pid = "(" + std::to_string(getpid()) + ") ", msg = message.substr(0, 4095);
    size_t before_size = read_file(path).size();
    std::time_t before = clock_now().tv_sec;
    int rc = log_printf("%s", message.c_str());
    std::time_t after = clock_now().tv_sec;
    std::string added = read_file(path).substr(before_size);
    std::time_t stamp = added == pid + local(after, "%m-%d %T  ") + msg + "\n" ? after : before;
    EXPECT_EQ(added, pid + local(stamp, "%m-%d %T  ") + msg + "\n");
    EXPECT_EQ(rc, static_cast<int>(added.size()));
}

// Switches the local time zone; null: back to the system's.
void set_zone(const char* tz) {
    tz ? setenv("TZ", tz, 1) : unsetenv("TZ");
    tzset();
}

class LogPrintf : public testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(dir_.ok()); }
    void TearDown() override { close_log(), set_zone(nullptr); }
    std::string path(const std::string& title = "libvarnix") const { return dir_.file(log_name(title)); }
    TempDir dir_;
};

// The binary's first test: before any directory was given, messages are dropped.
TEST_F(LogPrintf, WritesOneStampedLinePerMessageCutTo4095BytesAndRefusesBadPlaces) {
    EXPECT_EQ(log_printf("(I) too early %d", 42), 16);
    check_day();
    EXPECT_EQ(open_log(nullptr, nullptr, 0), -1);
    EXPECT_FALSE(std::filesystem::exists(std::filesystem::path("/") / log_name("libvarnix")));
    ASSERT_EQ(open_log(dir_.path().c_str(), "libvarnix", 0), 0);
    EXPECT_TRUE(files_in(dir_.path()) == 1 && mode_of(path()) == 0666u);
    expect_logged(path(), "<!> 한글 메시지 % 100");
    expect_logged(path(), "<" + std::string(4094, 'x'));
    expect_logged(path(), "<" + std::string(4095, 'x'));
    // A second open keeps the first file; an empty message writes nothing.
    TempDir other;
    EXPECT_EQ(open_log(other.path().c_str(), "other", 0), 0);
    EXPECT_EQ(files_in(other.path()), 0);
    std::string text = read_file(path());
    EXPECT_EQ(log_printf("%s", ""), 0);
    // Closed (twice): messages are lost, their length returned, until reopened into that file by default.
    close_log();
    close_log();
    EXPECT_EQ(log_printf("%s", std::string(5000, 'y').c_str()), 5000);
    ASSERT_EQ(open_log(nullptr, nullptr, 0), 0);
    EXPECT_EQ(read_file(path()), text);
    expect_logged(path(), "(I) reopened");
    close_log();
    // The mask is honoured for the open only.
    const mode_t mask = umask(022);
    ASSERT_EQ(open_log(dir_.path().c_str(), "masked", 077), 0);
    EXPECT_EQ(umask(mask), 022u);
    EXPECT_EQ(mode_of(path("masked")), 0600u);
    close_log();
    // A directory or title too long for the name buffer is refused and not kept.
    EXPECT_EQ(open_log(("/tmp/" + std::string(251, 'd')).c_str(), "masked", 0), -1);
    EXPECT_EQ(open_log(dir_.path().c_str(), std::string(256, 't').c_str(), 0), -1);
    ASSERT_EQ(open_log(nullptr, nullptr, 0), 0);
    expect_logged(path("masked"), "(I) same place");
    close_log();
    // The log never creates its directory: with it missing, every message is lost.
    EXPECT_EQ(open_log(dir_.file("missing").c_str(), "libvarnix", 0), -1);
    EXPECT_EQ(log_printf("(I) lost"), 8);
    EXPECT_FALSE(std::filesystem::exists(dir_.file("missing")));
}

// Twelve hours west and fourteen hours east of UTC are never on the same date.
TEST_F(LogPrintf, FirstMessageOfANewDayOpensThatDaysFile) {
    set_zone("<-12>12");
    const std::string day1 = path();
    ASSERT_EQ(open_log(dir_.path().c_str(), "libvarnix", 0), 0);
    expect_logged(day1, "(I) day one");
    set_zone("<+14>-14");
    const std::string day2 = path();
    check_day();
    EXPECT_EQ(files_in(dir_.path()), 2);
    expect_logged(day2, "(I) day two");
    set_zone("<-12>12");
    expect_logged(day1, "(I) back on day one");  // no check_day call: the message itself rolls over
    EXPECT_TRUE(read_file(day1).find("day two") == std::string::npos &&
                read_file(day2).find("day one") == std::string::npos);
}

// Every line is one whole message; each writer's lines keep their order.  A
// thread cancelled while it logs writes its line whole and leaves the log usable.
TEST_F(LogPrintf, ConcurrentAndCancelledWritersProduceWholeLines) {
    constexpr int kThreads = 4, kLines = 300;
    ASSERT_EQ(open_log(dir_.path().c_str(), "libvarnix", 0), 0);
    auto message = [](int t, int n) {
        return "(I) w" + std::to_string(t) + " #" + std::to_string(n) + " " +
               std::string(static_cast<size_t>((n * 37 + t * 11) % 3000 + 1), static_cast<char>('a' + t)) + " end";
    };
    ThreadGroup(kThreads, [&](int t) {
        for (int n = 0; n < kLines; ++n) log_printf("%s", message(t, n).c_str());
    }).join();
    std::vector<int> next(kThreads, 0);
    int bad_lines = 0;
    for (const std::string& line : log_messages(read_file(path()), 0)) {
        const int t = line.size() > 5 ? line[5] - '0' : -1;
        ++(t >= 0 && t < kThreads && next[t] < kLines && line == message(t, next[t]) ? next[t] : bad_lines);
    }
    EXPECT_EQ(bad_lines, 0);
    EXPECT_EQ(next, std::vector<int>(kThreads, kLines));

    bool logged = false;
    pthread_t th;
    ASSERT_EQ(pthread_create(&th, nullptr, +[](void* logged) -> void* {
        (void)pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
        (void)pthread_cancel(pthread_self());
        (void)pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, nullptr);
        log_printf("(I) from a thread about to be cancelled");
        *static_cast<bool*>(logged) = true;  // the cancel takes effect after the log call
        pthread_testcancel();
        return nullptr;
    }, &logged), 0);
    void* result = nullptr;
    ASSERT_EQ(pthread_join(th, &result), 0);
    EXPECT_EQ(result, PTHREAD_CANCELED);
    EXPECT_TRUE(logged);
    EXPECT_EQ(log_messages(read_file(path()), 0).back(), "(I) from a thread about to be cancelled");
    expect_logged(path(), "(I) after the cancelled thread");
}

}  // namespace
}  // namespace varnix
