#include "core/clock.h"
#include "core/log_printf.h"

#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "support/temp_dir.h"
#include "support/test_ipc.h"

namespace varnix {
namespace {

using test::read_file;
using test::TempDir;

std::string local(std::time_t t, const char* fmt) {
    std::tm tm{};
    localtime_r(&t, &tm);
    char buf[64];
    std::strftime(buf, sizeof buf, fmt, &tm);
    return buf;
}

std::string today() { return local(std::time(nullptr), "%Y-%m-%d"); }

std::string log_name(const std::string& title, const std::string& date) { return title + "-" + date + "-log"; }

std::vector<std::string> files_in(const std::string& dir) {
    std::vector<std::string> names;
    std::error_code ec;
    for (const auto& f : std::filesystem::directory_iterator(dir, ec)) names.push_back(f.path().filename());
    return names;
}

unsigned mode_of(const std::string& path) {
    struct stat st {};
    return stat(path.c_str(), &st) == 0 ? st.st_mode & 07777 : 0xFFFF;
}

mode_t current_umask() {
    mode_t m = umask(0);
    umask(m);
    return m;
}

// The line log_printf writes for `msg` at time t.
std::string line_at(std::time_t t, const std::string& msg) {
    return "(" + std::to_string(getpid()) + ") " + local(t, "%m-%d %T  ") + msg + "\n";
}

// Calls log_printf and checks the one line it appended to `path`, whose time
// stamp is that of the second before or after the call.
// The seconds are read as log_printf reads them: time() runs on a coarser
// clock that can lag a second boundary by a tick.
void expect_logged(const std::string& path, const std::string& msg) {
    size_t before_size = read_file(path).size();
    std::time_t before = clock_now().tv_sec;
    int rc = log_printf("%s", msg.c_str());
    std::time_t after = clock_now().tv_sec;
    std::string added = read_file(path).substr(before_size);
    std::string expected = added == line_at(after, msg) ? line_at(after, msg) : line_at(before, msg);
    EXPECT_EQ(added, expected);
    EXPECT_EQ(rc, static_cast<int>(expected.size()));
}

// Switches the local time zone for the life of the object.
class LocalZone {
public:
    explicit LocalZone(const char* tz) {
        if (const char* old = std::getenv("TZ")) {
            saved_ = old;
            had_ = true;
        }
        set(tz);
    }
    ~LocalZone() {
        if (had_)
            set(saved_.c_str());
        else
            unsetenv("TZ");
        tzset();
    }
    void set(const char* tz) {
        setenv("TZ", tz, 1);
        tzset();
    }

private:
    std::string saved_;
    bool had_ = false;
};

// Twelve hours west and fourteen hours east of UTC are never on the same date.
constexpr const char* kWest = "<-12>12";
constexpr const char* kEast = "<+14>-14";

class LogPrintf : public testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(dir_.ok()); }
    void TearDown() override { close_log(); }
    std::string path(const std::string& title = "libvarnix") const {
        return dir_.file(log_name(title, today()));
    }
    TempDir dir_;
};

// Runs first: nothing has given the log a directory yet.
TEST_F(LogPrintf, MessagesBeforeAnyDirectoryAreDropped) {
    const std::string stray[] = {"/" + log_name("", today()), "/" + log_name("libvarnix", today())};
    EXPECT_EQ(log_printf("(I) too early %d", 42), 16);
    check_day();
    EXPECT_EQ(open_log(nullptr, nullptr, 0), -1);
    EXPECT_EQ(open_log(nullptr, "libvarnix", 0), -1);
    EXPECT_EQ(log_printf("(I) still too early"), 19);
    for (const std::string& f : stray) {
        EXPECT_FALSE(std::filesystem::exists(f)) << f;
        std::error_code ignored;
        std::filesystem::remove(f, ignored);
    }
}

TEST_F(LogPrintf, WritesOneStampedLinePerMessageIntoTheDaysFile) {
    mode_t mask = current_umask();
    ASSERT_EQ(open_log(dir_.path().c_str(), "libvarnix", 0), 0);
    EXPECT_EQ(current_umask(), mask);
    EXPECT_EQ(files_in(dir_.path()), std::vector<std::string>{log_name("libvarnix", today())});
    EXPECT_EQ(mode_of(path()), 0666u);

    expect_logged(path(), "(I) tran_init ok [7]");
    expect_logged(path(), "<!> 한글 메시지 % 100");

    // A second open keeps the first file.
    TempDir other;
    EXPECT_EQ(open_log(other.path().c_str(), "other", 0), 0);
    EXPECT_EQ(files_in(other.path()), std::vector<std::string>{});
    expect_logged(path(), "(I) after the second open");

    // An empty message writes nothing.
    std::string text = read_file(path());
    EXPECT_EQ(log_printf("%s", ""), 0);
    EXPECT_EQ(read_file(path()), text);

    // Closed: messages are lost until the log is opened again, into the same
    // file with no directory and title given.
    close_log();
    close_log();
    EXPECT_EQ(log_printf("(I) closed"), 10);
    EXPECT_EQ(read_file(path()), text);
    ASSERT_EQ(open_log(nullptr, nullptr, 0), 0);
    EXPECT_EQ(read_file(path()), text);
    expect_logged(path(), "(I) reopened");
}

TEST_F(LogPrintf, OpenHonoursTheMaskAndRefusesBadPlaces) {
    mode_t mask = current_umask();
    ASSERT_EQ(open_log(dir_.path().c_str(), "masked", 077), 0);
    EXPECT_EQ(current_umask(), mask);
    EXPECT_EQ(mode_of(path("masked")), 0600u);
    close_log();

    // A directory too long for the name buffer is refused and not kept.
    std::string long_dir = "/tmp/" + std::string(251, 'd');
    EXPECT_EQ(open_log(long_dir.c_str(), "masked", 0), -1);
    EXPECT_EQ(open_log(dir_.path().c_str(), std::string(256, 't').c_str(), 0), -1);
    ASSERT_EQ(open_log(nullptr, nullptr, 0), 0);
    expect_logged(path("masked"), "(I) same place");
    close_log();

    // The log never creates its directory: with it missing, every message is lost.
    std::string missing = dir_.file("missing");
    EXPECT_EQ(open_log(missing.c_str(), "libvarnix", 0), -1);
    EXPECT_EQ(log_printf("(I) lost"), 8);
    EXPECT_FALSE(std::filesystem::exists(missing));
}

TEST_F(LogPrintf, LongMessagesAreCutTo4095Bytes) {
    ASSERT_EQ(open_log(dir_.path().c_str(), "libvarnix", 0), 0);
    for (size_t len : {4094u, 4095u, 4096u, 5000u}) {
        std::string msg(len, 'x');
        msg.front() = '<';
        size_t before = read_file(path()).size();
        int rc = log_printf("%s", msg.c_str());
        std::string added = read_file(path()).substr(before);
        size_t body = added.find("  ") + 2;
        EXPECT_EQ(added.substr(body), msg.substr(0, 4095) + "\n") << len;
        EXPECT_EQ(rc, static_cast<int>(added.size())) << len;
    }
    close_log();
    EXPECT_EQ(log_printf("%s", std::string(5000, 'y').c_str()), 5000);  // formatted length when nothing is written
}

TEST_F(LogPrintf, FirstMessageOfANewDayOpensThatDaysFile) {
    LocalZone zone(kWest);
    std::string day1 = today();
    ASSERT_EQ(open_log(dir_.path().c_str(), "libvarnix", 0), 0);
    std::string file1 = dir_.file(log_name("libvarnix", day1));
    expect_logged(file1, "(I) day one");
    check_day();
    EXPECT_EQ(files_in(dir_.path()).size(), 1u);

    zone.set(kEast);
    std::string day2 = today();
    ASSERT_NE(day1, day2);
    std::string file2 = dir_.file(log_name("libvarnix", day2));
    check_day();
    EXPECT_TRUE(std::filesystem::exists(file2));
    EXPECT_EQ(read_file(file2), "");
    expect_logged(file2, "(I) day two");

    zone.set(kWest);
    expect_logged(file1, "(I) back on day one");  // no check_day call: the message itself rolls over
    std::string one = read_file(file1);
    EXPECT_EQ(one.find("day two"), std::string::npos);
    EXPECT_EQ(read_file(file2).find("day one"), std::string::npos);
    EXPECT_EQ(files_in(dir_.path()).size(), 2u);
}

TEST_F(LogPrintf, ConcurrentWritersProduceWholeLines) {
    constexpr int kThreads = 4;
    constexpr int kLines = 300;
    ASSERT_EQ(open_log(dir_.path().c_str(), "libvarnix", 0), 0);

    auto message = [](int t, int n) {
        return "(I) w" + std::to_string(t) + " #" + std::to_string(n) + " " +
               std::string(static_cast<size_t>((n * 37 + t * 11) % 3000 + 1), static_cast<char>('a' + t)) + " end";
    };
    std::vector<int> bad_rc(kThreads, 0);
    std::vector<std::thread> writers;
    for (int t = 0; t < kThreads; ++t) {
        writers.emplace_back([t, &bad_rc, &message] {
            size_t prefix = ("(" + std::to_string(getpid()) + ") MM-DD HH:MM:SS  ").size();
            for (int n = 0; n < kLines; ++n) {
                std::string msg = message(t, n);
                if (log_printf("%s", msg.c_str()) != static_cast<int>(prefix + msg.size() + 1)) ++bad_rc[t];
            }
        });
    }
    for (std::thread& w : writers) w.join();
    EXPECT_EQ(bad_rc, std::vector<int>(kThreads, 0));

    // Every line is one whole message; each writer's lines keep their order.
    std::string text = read_file(path());
    std::string pid = "(" + std::to_string(getpid()) + ") ";
    std::vector<int> next(kThreads, 0);
    int bad_lines = 0;
    for (size_t pos = 0; pos < text.size();) {
        size_t end = text.find('\n', pos);
        if (end == std::string::npos) end = text.size();
        std::string line = text.substr(pos, end - pos);
        pos = end + 1;
        int t = -1;
        if (line.compare(0, pid.size(), pid) == 0 && line.size() > pid.size() + 16)
            std::sscanf(line.c_str() + pid.size() + 16, "(I) w%d", &t);
        if (t >= 0 && t < kThreads && next[t] < kLines && line.substr(pid.size() + 16) == message(t, next[t]))
            ++next[t];
        else
            ++bad_lines;
    }
    EXPECT_EQ(bad_lines, 0);
    EXPECT_EQ(next, std::vector<int>(kThreads, kLines));
}

// A host thread cancelled while it logs: the line is written whole and the
// log stays usable; the cancel takes effect after the log call.
void* log_with_cancel_pending(void* logged) {
    (void)pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
    (void)pthread_cancel(pthread_self());
    (void)pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, nullptr);
    log_printf("(I) from a thread about to be cancelled");
    *static_cast<bool*>(logged) = true;
    pthread_testcancel();
    return nullptr;
}

TEST_F(LogPrintf, CancelledThreadLeavesTheLogUsable) {
    ASSERT_EQ(open_log(dir_.path().c_str(), "libvarnix", 0), 0);
    bool logged = false;
    pthread_t th;
    ASSERT_EQ(pthread_create(&th, nullptr, log_with_cancel_pending, &logged), 0);
    void* result = nullptr;
    ASSERT_EQ(pthread_join(th, &result), 0);
    EXPECT_EQ(result, PTHREAD_CANCELED);
    EXPECT_TRUE(logged);
    expect_logged(path(), "(I) after the cancelled thread");
    EXPECT_NE(read_file(path()).find("from a thread about to be cancelled\n"), std::string::npos);
}

}  // namespace
}  // namespace varnix
