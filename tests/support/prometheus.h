// A real Prometheus (Debian's package, installed by scripts/deps.sh) for the
// tests: on 127.0.0.1, its storage in the test's directory, scraping one
// target every second, ended after 300 s at the latest, stopped by its pid.
// HTTP goes through curl.
#pragma once

#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>

#include <nlohmann/json.hpp>

#include <chrono>
#include <cmath>
#include <fstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "support/spawn.h"

namespace varnix::test {

// What a shell command prints on standard output.
inline std::string output_of(const std::string& command) {
    std::string out;
    if (std::FILE* p = popen(command.c_str(), "r")) {
        char buf[4096];
        for (size_t n; (n = std::fread(buf, 1, sizeof buf, p)) > 0;) out.append(buf, n);
        pclose(p);
    }
    return out;
}

// A socket on 127.0.0.1: connected to `port`, or for port 0 bound to a free one.
inline int local_socket(int port) {
    sockaddr_in a{AF_INET, htons(static_cast<uint16_t>(port)), {htonl(INADDR_LOOPBACK)}, {}};
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    auto* at = reinterpret_cast<sockaddr*>(&a);
    if (fd >= 0 && (port ? connect(fd, at, sizeof a) : bind(fd, at, sizeof a)) == 0) return fd;
    if (fd >= 0) close(fd);
    return -1;
}

// A port nothing listens on, for now.
inline int free_port() {
    const int fd = local_socket(0);
    sockaddr_in a{};
    socklen_t len = sizeof a;
    const bool ok = fd >= 0 && getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len) == 0;
    close(fd);
    return ok ? ntohs(a.sin_port) : -1;
}

class Prometheus {
public:
    Prometheus(const std::string& dir, const std::string& target) : port_(free_port()) {
        std::ofstream(dir + "/prometheus.yml") << "global: {scrape_interval: 1s, scrape_timeout: 1s}\n"
                                                  "scrape_configs: [{job_name: varnix, static_configs: [{targets: ['"
                                               << target << "']}]}]\n";
        pid_ = spawn({"timeout", "300", "prometheus", "--config.file=" + dir + "/prometheus.yml",
                      "--storage.tsdb.path=" + dir + "/prometheus-data",
                      "--web.listen-address=127.0.0.1:" + std::to_string(port_)},
                     "/dev/null", dir + "/prometheus.err");
    }
    ~Prometheus() {
        kill(pid_, SIGTERM);
        waitpid(pid_, nullptr, 0);
    }
    Prometheus(const Prometheus&) = delete;
    Prometheus& operator=(const Prometheus&) = delete;

    // The value of an instant query (no single quotes in it) with one result; NaN without one.
    double value(const std::string& expr) const {
        const auto j = nlohmann::json::parse(output_of("curl -s -G --data-urlencode 'query=" + expr +
                                                       "' http://127.0.0.1:" + std::to_string(port_) + "/api/v1/query"),
                                             nullptr, false);
        if (j.is_discarded() || j["status"] != "success" || j["data"]["result"].size() != 1) return NAN;
        return std::stod(j["data"]["result"][0]["value"][1].get<std::string>());
    }

    // Polls until every query has its value (Prometheus's start and scrapes
    // take seconds on a loaded machine: 60 s at most); the queries that did
    // not get it, one a line.
    std::string missed(const std::vector<std::pair<std::string, double>>& want) const {
        std::string missed;
        for (int i = 0; i < 300; ++i, std::this_thread::sleep_for(std::chrono::milliseconds(200))) {
            missed.clear();
            for (const auto& [expr, v] : want)
                if (value(expr) != v) missed += expr + "\n";
            if (missed.empty()) break;
        }
        return missed;
    }

private:
    int port_;
    pid_t pid_;
};

}  // namespace varnix::test
