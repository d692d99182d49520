// varnix-demo: a collector and a traced process in one program.  The
// collector creates its IPC objects from a configuration file; the process
// starts tracing against them, which announces it with event 1508; a worker
// thread runs a service transaction with a nested, failing service and sends
// an event of its own; a service is traced from its request and response
// telegrams, which capture writes to the full-message file; the collector
// decodes what arrived and shows the threads registered in its process-thread
// table; then tracing stops and every object is removed.
#include <pthread.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "collector/decode.h"
#include "collector/kit.h"
#include "varnix.h"

namespace {

using namespace varnix;

std::string make_home() {
    char tmpl[] = "/tmp/varnix-demo-XXXXXX";
    if (!mkdtemp(tmpl)) return "";
    std::string home = tmpl;
    std::error_code ec;
    std::filesystem::create_directories(home + "/agt/log/proc/libvarnix", ec);
    std::filesystem::create_directories(home + "/tong", ec);
    return ec ? "" : home;
}

using ServiceEntry = int32_t (*)(VARNIX_SERVICE_PARAMS);

// A service entry as a server calls it: codes, GID, service id and a few
// telegram columns; the rest absent.
int service(ServiceEntry entry, const char* gid, const char* svc_id) {
    return entry(-1, "DM", -1, "1", -1, gid, -1, svc_id, -1, nullptr, 0, nullptr, 0, nullptr, 0,  //
                 "Y", -1, "KB0001", -1, "IBK", -1, "ACCT_INQ", -1, nullptr, 0, "E0042", -1, nullptr, 0, nullptr, 0,
                 nullptr, 0, nullptr, 0, nullptr, 0, nullptr, 0, nullptr, 0, nullptr, 0, nullptr, 0, nullptr, 0,
                 nullptr, 0, nullptr, 0, nullptr, 0, nullptr, 0, nullptr, 0, nullptr, 0);
}

// A worker thread runs one transaction: a service that calls a nested one,
// which fails; then an event of its own.
void* worker(void* result) {
    const char* gid = "20261123-DEMO-000000000000000001";
    int* rc = static_cast<int*>(result);
    rc[0] = service(TRAN_START, gid, "ACCT_INQUIRY");
    rc[1] = service(TRAN_START, gid, "ACCT_BALANCE");
    rc[2] = service(TRAN_ERROR, gid, "ACCT_BALANCE");
    rc[3] = service(TRAN_END, gid, "ACCT_BALANCE");
    rc[4] = service(TRAN_END, gid, "ACCT_INQUIRY");
    rc[5] = TRAN_EVENT(-1, "DM", -1, "1", -1, gid, -1, "ACCT_INQUIRY", -1, nullptr, 0, nullptr, 0, nullptr, 0, "9001",
                       -1, "RECV01", -1, "O", -1, "hello from a worker thread", -1);
    return nullptr;
}

// A server that traces a service from its standard telegrams: request and
// response go to the full-message file while capture is switched on.
void trace_telegrams(kit::Collector& collector) {
    collector.que_info()->tong_log_flag = '1';
    std::string tel(600, ' ');
    tel.replace(0, 8, "00000600").replace(9, 32, "20261123-TMSG-000000000000000001").replace(209, 3, "IBK");
    tel.replace(132, 12, "ACCT_INQ").replace(188, 1, "0");
    const char* gid = "20261123-TMSG-000000000000000001";
    int start = TRAN_STARTX(-1, "DM", -1, "1", -1, gid, -1, "ACCT_TELEGRAM", -1, tel.data(), 600, 1, 1);
    tel.replace(104, 1, "R");
    int end = TRAN_ENDX(-1, "DM", -1, "1", -1, gid, -1, "ACCT_TELEGRAM", -1, tel.data(), 600, 1, 1);
    std::printf("TRAN_STARTX %d, TRAN_ENDX %d with 600-byte standard telegrams, capture on\n", start, end);
}

// Each full-message entry: 117-byte header (GID, time, host, S/F, length),
// the telegram, a line feed.  The writer thread appends them shortly after.
void show_captured(const std::string& dir) {
    for (int tries = 0; tries < 100; ++tries) {
        std::error_code ec;
        for (const auto& f : std::filesystem::directory_iterator(dir, ec)) {
            if (f.file_size(ec) < 2 * 718) continue;
            std::FILE* fp = std::fopen(f.path().c_str(), "r");
            char entry[718];
            for (int i = 0; fp && std::fread(entry, 1, sizeof entry, fp) == sizeof entry; ++i)
                std::printf(
                    "--- captured entry %d of %s\n  GID %.30s time %.16s host %.20s flag %c length %.6s\n"
                    "  telegram |%.60s...|\n",
                    i + 1, f.path().filename().c_str(), entry, entry + 30, entry + 46, entry[110], entry + 111,
                    entry + 117);
            if (fp) std::fclose(fp);
            return;
        }
        usleep(20000);
    }
    std::printf("--- no full-message file appeared\n");
}

void show_records(const kit::Collector& collector) {
    TRAN_LOG_MSG m{};
    int q;
    while ((q = collector.receive_wait(m, 200)) >= 0)
        std::printf("--- record from queue %d, %u body bytes\n%s", q, kit::body_length(m), kit::describe(m).c_str());
}

void show_threads(const kit::Collector& collector) {
    const PTRC_HASH_TBL& t = *collector.ptrc();
    std::printf("--- process-thread table: %u entries in use\n", t.used_cnt);
    for (uint32_t i = 0; i < t.used_stk.cnt && i < VARNIX_TBL_ENTRIES; ++i) {
        const PTRC_HASH& e = t.entry[t.used_stk.idx[i] % VARNIX_TBL_ENTRIES];
        std::printf("  entry %u: pid %d tid %lu state %d proc %.30s\n", e.pidx, e.pid,
                    static_cast<unsigned long>(e.tid), e.ptrc_state, e.proc_nm);
    }
}

void show_log(const std::string& dir) {
    std::error_code ec;
    for (const auto& f : std::filesystem::directory_iterator(dir, ec)) {
        std::printf("--- diagnostic log %s\n", f.path().c_str());
        std::FILE* fp = std::fopen(f.path().c_str(), "r");
        if (!fp) continue;
        char line[4200];
        while (std::fgets(line, sizeof line, fp)) std::fputs(line, stdout);
        std::fclose(fp);
    }
}

int run(const std::string& home) {
    kit::AgentConfig conf;
    conf.keys = kit::keys_for_pid(getpid());
    conf.log_home = "log";
    conf.tong_log_home = home + "/tong";
    const std::string cfg = home + "/agt/varnix.cfg";
    kit::Collector collector;
    if (!kit::write_file(cfg, kit::config_text(conf)) || collector.create(cfg.c_str()) != 0) return 1;
    std::printf("collector created its objects from %s (keys from 0x%x)\n", cfg.c_str(),
                static_cast<unsigned>(conf.keys.que_info));
    if (setenv("TRAN_HOME", home.c_str(), 1) != 0 || setenv("TRAN_AGT_HOME", (home + "/agt").c_str(), 1) != 0 ||
        setenv("TRAN_AGT_CFG_FILE", cfg.c_str(), 1) != 0)
        return 1;

    std::fflush(stdout);
    int rc = TRAN_INIT();
    std::printf("TRAN_INIT() = %d\n", rc);
    if (rc != 0) return 1;
    int rc_of[6] = {};
    pthread_t th;
    if (pthread_create(&th, nullptr, worker, rc_of) != 0 || pthread_join(th, nullptr) != 0) return 1;
    std::printf(
        "a worker thread: TRAN_START %d, nested TRAN_START %d, TRAN_ERROR %d, TRAN_END %d, TRAN_END %d, "
        "TRAN_EVENT %d (each the queue that carried the record)\n",
        rc_of[0], rc_of[1], rc_of[2], rc_of[3], rc_of[4], rc_of[5]);
    std::printf("TRAN_ERRINFO() outside a service = %d\n",
                TRAN_ERRINFO(-1, nullptr, 0, nullptr, 0, nullptr, 0, nullptr, 0, nullptr, 0, nullptr, 0, nullptr, 0,
                             "1105", -1, nullptr, 0, nullptr, 0, "no service is open", -1));
    trace_telegrams(collector);
    show_records(collector);
    show_captured(home + "/tong");
    show_threads(collector);
    std::printf("TRAN_DONE() = %d\n", TRAN_DONE());
    show_log(home + "/agt/log/proc/libvarnix");
    collector.remove();
    std::printf("collector removed every object it created\n");
    return 0;
}

}  // namespace

int main() {
    std::string home = make_home();
    if (home.empty()) {
        std::fprintf(stderr, "cannot create a demo directory under /tmp\n");
        return 1;
    }
    int rc = run(home);
    std::error_code ec;
    std::filesystem::remove_all(home, ec);
    return rc;
}
