// The diagnostic log of a test binary that runs without a collector: opened in
// a temporary directory of its own, read back message by message.
#pragma once

#include <stdlib.h>

#include <filesystem>
#include <string>
#include <vector>

#include "core/log_printf.h"
#include "support/test_ipc.h"

namespace varnix::test {

class LogCapture {
public:
    // One per binary: the log file is process-wide.
    static LogCapture& get() {
        static LogCapture capture;
        return capture;
    }

    bool ok() const { return ok_; }

    // Messages logged since the last call, without the "(pid) MM-DD HH:MM:SS  "
    // prefix and the line end.
    std::vector<std::string> take() {
        std::string text = read_file(path());
        std::vector<std::string> messages = log_messages(text, seen_);
        seen_ = text.size();
        return messages;
    }

private:
    LogCapture() {
        char tmpl[] = "/tmp/varnix-log-XXXXXX";
        if (!mkdtemp(tmpl)) return;
        dir_ = tmpl;
        ok_ = open_log(dir_.c_str(), "libvarnix", 0) == 0;
    }
    ~LogCapture() {
        close_log();
        std::error_code ignored;
        std::filesystem::remove_all(dir_, ignored);
    }

    std::string path() const {
        std::error_code ec;
        for (const auto& f : std::filesystem::directory_iterator(dir_, ec)) return f.path().string();
        return {};
    }

    bool ok_ = false;
    std::string dir_;
    size_t seen_ = 0;
};

}  // namespace varnix::test
