#include "kit/session.h"

#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>

namespace varnix::kit {
namespace {

Session* the_session = nullptr;  // never destroyed: the exit handler uses it
Collector::Ids signal_ids;       // read by the signal handler

void on_signal(int sig) {
    collector::remove_ids(signal_ids);
    signal(sig, SIG_DFL);
    raise(sig);
}

bool set_env(const std::string& home, const std::string& cfg) {
    return setenv("TRAN_HOME", home.c_str(), 1) == 0 && setenv("TRAN_AGT_HOME", (home + "/agt").c_str(), 1) == 0 &&
           setenv("TRAN_AGT_CFG_FILE", cfg.c_str(), 1) == 0;
}

}  // namespace

Session* Session::start(const char* prefix, AgentConfig conf) {
    if (the_session) return the_session;
    Session* s = new Session;
    if (s->create(prefix, conf) != 0) {
        s->remove();
        delete s;
        return nullptr;
    }
    the_session = s;
    signal_ids = s->collector_.ids();
    for (int sig : {SIGINT, SIGTERM}) signal(sig, on_signal);
    if (std::atexit([] { the_session->remove(); }) != 0) std::fprintf(stderr, "[session] atexit failed\n");
    return s;
}

int Session::create(const char* prefix, AgentConfig& conf) {
    std::string tmpl = std::string("/tmp/") + prefix + "-XXXXXX";
    if (!mkdtemp(tmpl.data())) {
        std::perror("[session] mkdtemp");
        return -1;
    }
    home_ = tmpl;
    std::error_code ec;
    std::filesystem::create_directories(home_ + "/agt/log/proc/libvarnix", ec);
    std::filesystem::create_directories(home_ + "/tong", ec);
    conf.keys = keys_for_pid(getpid());
    conf.log_home = "log";
    conf.tong_log_home = home_ + "/tong";
    const std::string cfg = home_ + "/agt/varnix.cfg";
    if (ec || !write_file(cfg, config_text(conf)) || !set_env(home_, cfg)) {
        std::fprintf(stderr, "[session] cannot prepare %s\n", home_.c_str());
        return -1;
    }
    return collector_.create(cfg.c_str());
}

void Session::remove() {
    if (this == the_session) signal_ids = Collector::Ids{};
    collector_.remove();
    if (home_.empty()) return;
    std::error_code ignored;
    std::filesystem::remove_all(home_, ignored);
    home_.clear();
}

}  // namespace varnix::kit
