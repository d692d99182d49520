// The agent's /metrics endpoint: HTTP served by libmicrohttpd on a thread
// of its own, which answers each scrape from the Metrics atomics and never
// touches what the draining thread owns.
//
// Bounds: at most kConnections connections at once (further ones are closed
// as they come), a request head of at most kRequestBytes (a larger one is
// answered with an error and the connection closed), and kIdleSecs of
// silence before a connection is dropped, so that slow or stuck clients cost
// a few sockets at most and never the drain.  GET and HEAD of /metrics get
// the exposition; another path 404, another method 405, a request that is
// not HTTP 400.
#pragma once

#include <string>

#include "collector/metrics.h"

struct MHD_Daemon;

namespace varnix::agent {

// Where metrics are served: `--metrics ADDRESS:PORT`, else the key
// METRICS_ADDRESS of the configuration's section VARNIX_AGENT, else "" (none).
std::string metrics_address(const std::string& option, const char* cfg);

class MetricsServer {
public:
    static constexpr unsigned kConnections = 4;
    static constexpr size_t kRequestBytes = 16 * 1024;
    static constexpr unsigned kIdleSecs = 10;

    explicit MetricsServer(const Metrics& metrics) : metrics_(metrics) {}
    ~MetricsServer() { stop(); }
    MetricsServer(const MetricsServer&) = delete;
    MetricsServer& operator=(const MetricsServer&) = delete;

    // Binds `address` (HOST:PORT, [IPv6]:PORT; port 0 takes a free one) and
    // starts serving; false, with a line naming the reason on standard error.
    bool start(const std::string& address);
    void stop();
    // The port bound, once started.
    int port() const { return port_; }

private:
    int listen_on(const std::string& address);

    const Metrics& metrics_;
    MHD_Daemon* daemon_ = nullptr;
    int port_ = 0;
    std::string where_;  // the address bound, as a URL shows it
};

}  // namespace varnix::agent
