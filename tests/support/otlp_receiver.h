// The tests' OTLP/HTTP receiver (tests/otlp/receiver.js, decoding with
// OpenTelemetry's own generated code, installed by npm into the build tree by
// the otlp_npm fixture): started on 127.0.0.1 with a bounded lifetime,
// stopped by its pid.
#pragma once

#include <signal.h>

#include <nlohmann/json.hpp>

#include <fstream>
#include <string>
#include <vector>

#include "support/in_child.h"
#include "support/spawn.h"
#include "support/test_ipc.h"

namespace varnix::test {

class OtlpReceiver {
public:
    // Files go to `dir`; the first `refuse_first` requests are answered 503;
    // `port` 0 takes a free one.
    OtlpReceiver(const std::string& dir, int refuse_first = 0, int port = 0)
        : port_file_(dir + "/receiver.port"), out_(dir + "/receiver.jsonl") {
        std::remove(port_file_.c_str());
        std::remove(out_.c_str());
        pid_ = spawn({"node", OTLP_RECEIVER_DIR "/receiver.js", port_file_, out_, "300", std::to_string(refuse_first),
                      std::to_string(port)},
                     dir + "/receiver.out", dir + "/receiver.err");
        wait_for([&] { return !read_file(port_file_).empty() || kill(pid_, 0) != 0; });
        port_ = std::atoi(read_file(port_file_).c_str());
    }
    ~OtlpReceiver() { stop(); }
    OtlpReceiver(const OtlpReceiver&) = delete;
    OtlpReceiver& operator=(const OtlpReceiver&) = delete;

    bool ok() const { return port_ > 0; }
    int port() const { return port_; }
    std::string url() const { return "http://127.0.0.1:" + std::to_string(port_); }

    void stop() {
        if (pid_ <= 0) return;
        kill(pid_, SIGTERM);
        waitpid(pid_, nullptr, 0);
        pid_ = -1;
    }

    // What it decoded so far: lines of `type` "span", "log" or "request".
    std::vector<nlohmann::json> got(const char* type) const {
        std::vector<nlohmann::json> all;
        std::ifstream in(out_);
        for (std::string line; std::getline(in, line);) {
            nlohmann::json j = nlohmann::json::parse(line, nullptr, false);
            if (j.value("type", "") == type) all.push_back(std::move(j));
        }
        return all;
    }

private:
    std::string port_file_, out_;
    pid_t pid_ = -1;
    int port_ = 0;
};

}  // namespace varnix::test
