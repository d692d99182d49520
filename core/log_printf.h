// Diagnostic log: one line per message, one file per day,
// "<dir>/<title>-YYYY-MM-DD-log".
#pragma once

#include <span>
#include <sys/types.h>

namespace varnix {

// 0 when a log file is open afterwards, -1 when none could be opened.  A
// second call while a file is open changes nothing.
int open_log(const char* dir, const char* title, mode_t mask);
void close_log();

// Writes "(pid) MM-DD HH:MM:SS  <message>\n"; messages are cut to 4095 bytes.
// Messages before the first successful open_log are dropped.
int log_printf(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
// The same for a message formatted already; `len` is what log_printf
// returns for it.
int log_line(const char* msg, int len);

// A message formatted now and written when the object goes: lines about work
// done under a lock shared with other processes are written after it.
class DeferredLine {
public:
    DeferredLine() = default;
    ~DeferredLine() {
        if (len_ > 0) (void)log_line(text_, len_);
    }
    DeferredLine(const DeferredLine&) = delete;
    DeferredLine& operator=(const DeferredLine&) = delete;
    char* buffer() { return text_; }
    static constexpr int size() { return sizeof text_; }
    void set_length(int len) { len_ = len < size() ? len : size() - 1; }

private:
    char text_[256];
    int len_ = 0;
};

// Reopens the file when the local day changed.
void check_day();

// In a forked child: a fresh lock, and no stream until the next open_log.
void reset_log_after_fork();

// "%m-%d %T  " of the local time now, into `out`.
const char* get_cur_time(std::span<char, 32> out);

}  // namespace varnix
