// Diagnostic log.
//
// Any thread may log.  One mutex (log_lock) guards the open stream and its
// name parts, so that the day roll-over (close, then reopen) can never free a
// stream another thread is writing to.  It is a leaf lock: nothing else is
// taken while it is held, so it may be used under any other lock of the
// library.  Cancellation is off while it is held (a thread cancelled in the
// write would keep it for ever).  Time stamps are formatted into per-call
// buffers.
#include "core/log_printf.h"

#include <pthread.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "core/clock.h"
#include "core/mutex.h"
#include "core/no_cancel.h"

namespace varnix {
namespace {

constexpr int kMsgBuf = 4096;

pthread_mutex_t log_lock = PTHREAD_MUTEX_INITIALIZER;
std::FILE* log_file = nullptr;
char log_dir[256];
char log_title[256];
int cur_day = 0;

bool store_name(char (&dst)[256], const char* src) {
    size_t n = std::strlen(src);
    if (n >= sizeof dst) return false;
    std::memcpy(dst, src, n + 1);
    return true;
}

// Callers hold log_lock.
int open_log_locked(const char* dir, const char* title, mode_t mask) {
    if (log_file) return 0;
    if ((dir && !store_name(log_dir, dir)) || (title && !store_name(log_title, title))) return -1;
    if (log_dir[0] == '\0') return -1;
    std::time_t now = std::time(nullptr);
    std::tm tm{};
    localtime_r(&now, &tm);
    char date_str[32];
    std::strftime(date_str, sizeof date_str, "%Y-%m-%d", &tm);
    cur_day = tm.tm_yday;
    char path[sizeof log_dir + sizeof log_title + sizeof date_str + 8];
    std::snprintf(path, sizeof path, "%s/%s-%s-log", log_dir, log_title, date_str);
    mode_t old = umask(mask);
    log_file = std::fopen(path, "a+e");
    umask(old);
    if (!log_file) return -1;
    std::setvbuf(log_file, nullptr, _IONBF, 0);
    return 0;
}

void close_log_locked() {
    if (!log_file) return;
    std::fclose(log_file);
    log_file = nullptr;
}

void check_day_locked() {
    std::time_t now = std::time(nullptr);
    std::tm tm{};
    localtime_r(&now, &tm);
    if (tm.tm_yday == cur_day) return;
    close_log_locked();
    open_log_locked(nullptr, nullptr, 0);
}

}  // namespace

int open_log(const char* dir, const char* title, mode_t mask) {
    NoCancel no_cancel;
    MutexGuard guard(log_lock);
    return open_log_locked(dir, title, mask);
}

void close_log() {
    NoCancel no_cancel;
    MutexGuard guard(log_lock);
    close_log_locked();
}

void check_day() {
    NoCancel no_cancel;
    MutexGuard guard(log_lock);
    check_day_locked();
}

void reset_log_after_fork() {
    (void)pthread_mutex_init(&log_lock, nullptr);
    // The stream's own lock may be held by a thread that the child does not
    // have, so it is dropped rather than closed; the descriptor is closed.
    if (log_file) (void)close(fileno(log_file));
    log_file = nullptr;
}

const char* get_cur_time(std::span<char, 32> out) {
    const timeval tv = clock_now();
    std::tm tm{};
    localtime_r(&tv.tv_sec, &tm);
    std::strftime(out.data(), out.size(), "%m-%d %T  ", &tm);
    return out.data();
}

int log_printf(const char* fmt, ...) {
    char msg[kMsgBuf];
    va_list ap;
    va_start(ap, fmt);
    int len = std::vsnprintf(msg, sizeof msg, fmt, ap);
    va_end(ap);
    if (len < 1) return len;
    return log_line(msg, len);
}

int log_line(const char* msg, int len) {
    char stamp[32];
    get_cur_time(stamp);
    NoCancel no_cancel;
    MutexGuard guard(log_lock);
    check_day_locked();
    if (!log_file) return len;
    return std::fprintf(log_file, "(%d) %s%.*s\n", static_cast<int>(getpid()), stamp, len, msg);
}

}  // namespace varnix
