#include "support/test_ipc.h"

#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>

#include "context/tables.h"

namespace varnix::test {
namespace {

kit::Collector::Ids crash_ids;  // read by the crash handler

void on_crash(int sig) {
    collector::remove_ids(crash_ids);
    signal(sig, SIG_DFL);
    raise(sig);
}

void remove_on_crash(const kit::Collector::Ids& ids) {
    crash_ids = ids;
    for (int sig : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT, SIGTERM, SIGINT}) signal(sig, on_crash);
}

}  // namespace

std::string read_file(const std::string& path) {
    std::string text;
    std::FILE* fp = std::fopen(path.c_str(), "rb");
    if (!fp) return text;
    char buf[4096];
    size_t n;
    while ((n = std::fread(buf, 1, sizeof buf, fp)) > 0) text.append(buf, n);
    std::fclose(fp);
    return text;
}

std::vector<std::string> log_messages(const std::string& text, size_t from) {
    std::vector<std::string> messages;
    size_t pos = from;
    while (pos < text.size()) {
        size_t end = text.find("\n(", pos);
        end = end == std::string::npos ? text.size() - 1 : end;
        size_t body = text.find("  ", pos);
        size_t start = body != std::string::npos && body < end ? body + 2 : pos;
        messages.push_back(text.substr(start, end - start));
        pos = end + 1;
    }
    return messages;
}

TestIpc& TestIpc::get() {
    // Never destroyed: the exit handler below still needs it after static
    // destructors would have run.
    static TestIpc* ipc = new TestIpc;
    return *ipc;
}

TestIpc::TestIpc() : owner_pid_(getpid()) {
    char tmpl[] = "/tmp/varnix-test-XXXXXX";
    if (!mkdtemp(tmpl)) return;
    dir_ = tmpl;
    std::error_code ec;
    std::filesystem::create_directories(log_dir(), ec);
    std::filesystem::create_directories(tong_dir(), ec);
    if (ec || !write_config(default_config())) return;
    if (collector_.create(cfg_path().c_str()) != 0) return;
    remove_on_crash(collector_.ids());
    std::atexit([] {
        TestIpc& self = get();
        self.collector_.remove();
        std::error_code ignored;
        std::filesystem::remove_all(self.dir_, ignored);
    });
    ok_ = true;
}

kit::AgentConfig TestIpc::default_config() const {
    kit::AgentConfig conf;
    conf.keys = kit::keys_for_pid(owner_pid_);  // also in a forked child: the collector is the creator's
    conf.log_home = "log";
    conf.tong_log_home = tong_dir();
    return conf;
}

bool TestIpc::write_config(const kit::AgentConfig& conf) const {
    if (!kit::write_file(cfg_path(), kit::config_text(conf))) return false;
    return setenv("TRAN_HOME", dir_.c_str(), 1) == 0 && setenv("TRAN_AGT_HOME", (dir_ + "/agt").c_str(), 1) == 0 &&
           setenv("TRAN_AGT_CFG_FILE", cfg_path().c_str(), 1) == 0;
}

void TestIpc::reset() {
    kit::AgentConfig conf = default_config();
    write_config(conf);
    TRAN_LOGF_QUE_INFO& q = que_info();
    std::memset(&q, 0, sizeof q);
    q.qcnt = conf.que_cnt;
    q.que_mask = static_cast<uint32_t>(conf.que_cnt - 1);
    q.magic_code = VARNIX_MAGIC_CODE;
    q.log_flag_set = get_log_flag_set(conf.log_flag_set.c_str());
    q.call_trc_depth = conf.call_trc_depth;
    q.tong_log_flag = '0';
    init_svc_hash_tbl(*collector_.svc());
    collector_.drain();
}

int TestIpc::recreate() {
    collector_.remove();
    if (collector_.create(cfg_path().c_str()) != 0) return -1;
    remove_on_crash(collector_.ids());
    return 0;
}

std::string TestIpc::log_path() const {
    std::time_t now = std::time(nullptr);
    std::tm tm{};
    localtime_r(&now, &tm);
    char date[16];
    std::strftime(date, sizeof date, "%Y-%m-%d", &tm);
    return log_dir() + "/libvarnix-" + date + "-log";
}

std::string TestIpc::read_log() const { return read_file(log_path()); }

}  // namespace varnix::test
