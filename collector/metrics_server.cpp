#include "collector/metrics_server.h"

#include <microhttpd.h>
#include <netdb.h>
#include <pthread.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "collector/agent_config.h"

namespace varnix::agent {
namespace {

constexpr int kBacklog = 16;
constexpr const char* kExposition = "text/plain; version=0.0.4; charset=utf-8";

// HOST:PORT or [HOST]:PORT into its parts; false for anything else.
bool split(const std::string& address, std::string& host, std::string& port) {
    const size_t colon = address.rfind(':');
    if (colon == std::string::npos) return false;
    host = address.substr(0, colon);
    port = address.substr(colon + 1);
    if (host.size() >= 2 && host.front() == '[' && host.back() == ']')
        host = host.substr(1, host.size() - 2);
    else if (host.find(':') != std::string::npos)
        return false;  // an IPv6 address needs its brackets
    return !port.empty() && port.size() <= 5 && port.find_first_not_of("0123456789") == std::string::npos &&
           std::stoi(port) <= 65535;
}

// A listening socket on `a`, or -1 with errno set.
int listening_socket(const addrinfo& a) {
    const int fd = socket(a.ai_family, a.ai_socktype | SOCK_CLOEXEC | SOCK_NONBLOCK, a.ai_protocol);
    if (fd < 0) return -1;
    const int one = 1;
    if (setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one) == 0 && bind(fd, a.ai_addr, a.ai_addrlen) == 0 &&
        listen(fd, kBacklog) == 0)
        return fd;
    const int why = errno;
    close(fd);
    errno = why;
    return -1;
}

MHD_Result reply(MHD_Connection* c, unsigned status, const std::string& body, const char* type) {
    MHD_Response* r =
        MHD_create_response_from_buffer(body.size(), const_cast<char*>(body.data()), MHD_RESPMEM_MUST_COPY);
    if (!r) return MHD_NO;  // MHD then closes the connection
    MHD_Result ok = MHD_add_response_header(r, MHD_HTTP_HEADER_CONTENT_TYPE, type);
    if (ok == MHD_YES && status == MHD_HTTP_METHOD_NOT_ALLOWED)
        ok = MHD_add_response_header(r, MHD_HTTP_HEADER_ALLOW, "GET, HEAD");
    if (ok == MHD_YES) ok = MHD_queue_response(c, status, r);
    MHD_destroy_response(r);
    return ok;
}

// Called by MHD once a request's head is read (and again for a body, which
// no answer here waits for).
MHD_Result answer(void* cls, MHD_Connection* c, const char* url, const char* method, const char*, const char*,
                  size_t*, void**) {
    if (std::strcmp(url, "/metrics") != 0)
        return reply(c, MHD_HTTP_NOT_FOUND, "the metrics are at /metrics\n", "text/plain");
    if (std::strcmp(method, MHD_HTTP_METHOD_GET) != 0 && std::strcmp(method, MHD_HTTP_METHOD_HEAD) != 0)
        return reply(c, MHD_HTTP_METHOD_NOT_ALLOWED, "only GET and HEAD\n", "text/plain");
    return reply(c, MHD_HTTP_OK, static_cast<const Metrics*>(cls)->render(), kExposition);
}

}  // namespace

std::string metrics_address(const std::string& option, const char* cfg) {
    return option.empty() ? optional_token(cfg, "VARNIX_AGENT", "METRICS_ADDRESS") : option;
}

int MetricsServer::listen_on(const std::string& address) {
    std::string host, port;
    if (!split(address, host, port)) {
        std::fprintf(stderr, "varnix-agent: the metrics address %s is not HOST:PORT or [IPv6]:PORT\n", address.c_str());
        return -1;
    }
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_NUMERICSERV | AI_PASSIVE;
    addrinfo* found = nullptr;
    if (const int rc = getaddrinfo(host.empty() ? nullptr : host.c_str(), port.c_str(), &hints, &found); rc != 0) {
        std::fprintf(stderr, "varnix-agent: cannot serve metrics on %s: %s\n", address.c_str(),
                     rc == EAI_SYSTEM ? std::strerror(errno) : gai_strerror(rc));
        return -1;
    }
    int fd = -1;
    for (const addrinfo* a = found; a && fd < 0; a = a->ai_next) fd = listening_socket(*a);
    const int why = errno;
    freeaddrinfo(found);
    if (fd < 0) {
        std::fprintf(stderr, "varnix-agent: cannot serve metrics on %s: %s\n", address.c_str(), std::strerror(why));
        return -1;
    }
    sockaddr_storage bound{};
    socklen_t len = sizeof bound;
    char host_shown[NI_MAXHOST] = "?", port_shown[NI_MAXSERV] = "?";
    if (getsockname(fd, reinterpret_cast<sockaddr*>(&bound), &len) == 0 &&
        getnameinfo(reinterpret_cast<sockaddr*>(&bound), len, host_shown, sizeof host_shown, port_shown,
                    sizeof port_shown, NI_NUMERICHOST | NI_NUMERICSERV) == 0)
        port_ = std::atoi(port_shown);
    const bool v6 = bound.ss_family == AF_INET6;
    where_ = std::string(v6 ? "[" : "") + host_shown + (v6 ? "]:" : ":") + port_shown;
    return fd;
}

bool MetricsServer::start(const std::string& address) {
    const int fd = listen_on(address);
    if (fd < 0) return false;
    // MHD's thread takes its signal mask from this one: the agent's stop
    // signals stay with the draining thread.
    sigset_t all, old;
    sigfillset(&all);
    const int masked = pthread_sigmask(SIG_BLOCK, &all, &old);
    daemon_ = MHD_start_daemon(MHD_USE_AUTO | MHD_USE_INTERNAL_POLLING_THREAD, 0, nullptr, nullptr, answer,
                               const_cast<Metrics*>(&metrics_), MHD_OPTION_LISTEN_SOCKET, fd,
                               MHD_OPTION_CONNECTION_LIMIT, kConnections, MHD_OPTION_CONNECTION_TIMEOUT, kIdleSecs,
                               MHD_OPTION_CONNECTION_MEMORY_LIMIT, kRequestBytes, MHD_OPTION_STRICT_FOR_CLIENT, 1,
                               MHD_OPTION_END);
    if (masked == 0) pthread_sigmask(SIG_SETMASK, &old, nullptr);
    if (daemon_) {
        std::fprintf(stderr, "varnix-agent: serving metrics on http://%s/metrics\n", where_.c_str());
        return true;
    }
    // The agent ends now: the socket goes with it, whether MHD closed it or not.
    std::fprintf(stderr, "varnix-agent: cannot start serving metrics (libmicrohttpd refused)\n");
    return false;
}

void MetricsServer::stop() {
    if (daemon_) MHD_stop_daemon(daemon_);  // joins its thread, closes the sockets
    daemon_ = nullptr;
}

}  // namespace varnix::agent
