// varnix-agent-bench: how fast the real agent drains, against a plain msgrcv
// loop draining the same records in the same run.
//
// It writes a configuration of 16 queues under its own keys, starts
// varnix-agent on it (--out a file, and --otlp URL when given), and then, for
// each round: stops the agent (SIGSTOP), fills the queues from this traced
// process with transactions of seven records (start, BIZCALL, SQL, DBIO, a
// notice, the end's statistics, the end) until a queue is nearly full, drains
// them with a plain msgrcv loop (timed), fills them again the same way, lets
// the agent go (SIGCONT) and times it until its output holds every record.
//   varnix-agent-bench AGENT [--otlp URL] [--rounds N]
#include <signal.h>
#include <sys/msg.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <utility>
#include <vector>

#include "bench/app_calls.h"
#include "core/clock.h"
#include "kit/config_file.h"

namespace {

using namespace varnix;

constexpr int kQueues = 16;
constexpr int kRecordsPerTransaction = 7;
// Of what the queues hold together: records spread over the queues by their
// GID's hash, unevenly, and no send may be refused.
constexpr double kFill = 0.5;

const bench::AppNames kNames{"BK", "RCV_BENCH", "bench_mod", "bench.c"};

struct Agent {
    pid_t pid = -1;
    std::string out, err;
};

std::string read_all(const std::string& path) {
    std::ifstream in(path);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

bool wait_until(auto done, int seconds) {
    for (int i = 0; i < seconds * 1000 && !done(); ++i) usleep(1000);
    return done();
}

// Lines of the agent's output so far, counted from where the last call left off.
struct LineCounter {
    explicit LineCounter(std::string p) : path(std::move(p)) {}
    uint64_t count() {
        if (!in.is_open()) in.open(path);  // the agent creates it
        in.clear();
        char buf[1 << 16];
        while (in.read(buf, sizeof buf) || in.gcount() > 0) {
            lines += static_cast<uint64_t>(std::count(buf, buf + in.gcount(), '\n'));
            if (in.eof()) break;
        }
        return lines;
    }
    std::string path;
    std::ifstream in;
    uint64_t lines = 0;
};

// Agent CPU time (user and system, all threads) in microseconds.
int64_t cpu_us(pid_t pid) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
    std::string s((std::istreambuf_iterator<char>(in)), {});
    const size_t close = s.rfind(')');
    if (close == std::string::npos) return -1;
    std::vector<std::string> f;
    size_t at = close + 2;
    while (at < s.size()) {
        size_t sp = s.find(' ', at);
        f.push_back(s.substr(at, sp - at));
        if (sp == std::string::npos) break;
        at = sp + 1;
    }
    const long hz = sysconf(_SC_CLK_TCK);
    return (std::stoll(f[11]) + std::stoll(f[12])) * 1'000'000 / hz;  // utime, stime
}

int64_t thread_cpu_us() {
    timespec ts{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1'000'000 + ts.tv_nsec / 1000;
}

uint64_t queued(const std::vector<int>& qids) {
    uint64_t n = 0;
    for (int q : qids) {
        msqid_ds ds{};
        if (msgctl(q, IPC_STAT, &ds) == 0) n += ds.msg_qnum;
    }
    return n;
}

// Sends transactions until the queues hold about `records`.
void fill(uint64_t records, int round) {
    char gid[40], sql[96];
    for (uint64_t t = 0; t * kRecordsPerTransaction < records; ++t) {
        std::snprintf(gid, sizeof gid, "BENCH-%02d-%010llu", round, static_cast<unsigned long long>(t));
        std::snprintf(sql, sizeof sql, "SELECT balance FROM account WHERE acct_no = %llu",
                      static_cast<unsigned long long>(t));
        bench::service(TRAN_START, kNames, gid, "BENCH_SVC");
        bench::call_start(kNames, "check_limit");
        bench::call_finish(kNames, "check_limit");
        bench::call_start(kNames, "DBIO_select");
        TRAN_SQL_STMT(-1, 0, nullptr, 0, nullptr, 0, 1, nullptr, nullptr, sql, -1);
        bench::call_finish(kNames, "DBIO_select");
        TRAN_INFO(-1, nullptr, 0, nullptr, 0, nullptr, 0, nullptr, 0, nullptr, 0, nullptr, 0, nullptr, 0, "a notice", -1);
        bench::service(TRAN_END, kNames, gid, "BENCH_SVC");
    }
}

// The plain drain: every record received as the agent receives it.
uint64_t plain_drain(const std::vector<int>& qids) {
    TRAN_LOG_MSG m;
    uint64_t n = 0;
    for (int q : qids)
        while (msgrcv(q, &m, VARNIX_REC_TEXT, 0, IPC_NOWAIT) >= 0) ++n;
    return n;
}

int usage() {
    std::fprintf(stderr, "usage: varnix-agent-bench AGENT [--otlp URL] [--rounds N]\n");
    return 2;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) return usage();
    std::string otlp;
    int rounds = 3;
    for (int i = 2; i < argc; i += 2) {
        if (i + 1 < argc && std::strcmp(argv[i], "--otlp") == 0)
            otlp = argv[i + 1];
        else if (i + 1 < argc && std::strcmp(argv[i], "--rounds") == 0)
            rounds = std::atoi(argv[i + 1]);
        else
            return usage();
    }
    char home_tmpl[] = "/tmp/varnix-agent-bench-XXXXXX";
    if (!mkdtemp(home_tmpl)) return 1;
    const std::string home = home_tmpl;
    std::filesystem::create_directories(home + "/agt/log/proc/libvarnix");
    kit::AgentConfig conf;
    conf.keys = kit::keys_for_pid(getpid());
    conf.log_home = "log";
    conf.tong_log_home = home;
    conf.que_cnt = conf.max_que_cnt = kQueues;
    const std::string cfg = home + "/agt/varnix.cfg";
    if (!kit::write_file(cfg, kit::config_text(conf)) || setenv("TRAN_HOME", home.c_str(), 1) != 0 ||
        setenv("TRAN_AGT_HOME", (home + "/agt").c_str(), 1) != 0 || setenv("TRAN_AGT_CFG_FILE", cfg.c_str(), 1) != 0)
        return 1;

    Agent a{-1, home + "/out.jsonl", home + "/agent.err"};
    std::vector<std::string> args = {argv[1], "start", "--out", a.out};
    if (!otlp.empty()) args.insert(args.end(), {"--otlp", otlp});
    a.pid = fork();
    if (a.pid == 0) {
        std::vector<char*> v;
        for (std::string& s : args) v.push_back(s.data());
        v.push_back(nullptr);
        if (prctl(PR_SET_PDEATHSIG, SIGTERM) != 0 || !freopen(a.err.c_str(), "w", stderr)) _exit(127);
        execv(v[0], v.data());
        _exit(127);
    }
    int rc = 1;
    std::vector<int> qids;
    LineCounter lines(a.out);
    if (!wait_until([&] { return read_all(a.err).find("running") != std::string::npos; }, 30) || TRAN_INIT() != 0) {
        std::fprintf(stderr, "the agent or tracing did not start:\n%s", read_all(a.err).c_str());
    } else {
        for (int q = 0; q < kQueues; ++q) qids.push_back(msgget(conf.keys.msgq + q, 0));
        msqid_ds ds{};
        msgctl(qids[0], IPC_STAT, &ds);
        const uint64_t target =
            static_cast<uint64_t>(kFill * static_cast<double>(ds.msg_qbytes / (VARNIX_REC_TEXT + sizeof(long))) * kQueues);
        std::printf("mode: JSON%s; queue bytes %lu; %d rounds\n", otlp.empty() ? "" : " and OTLP",
                    static_cast<unsigned long>(ds.msg_qbytes), rounds);
        std::printf("ns per record: wall time until the output holds every record, and processor time (the\n"
                    "agent's: every thread, user and system, until it is idle again, its export included)\n");
        std::printf("%5s %8s %10s %10s %10s %10s %6s %6s\n", "round", "records", "plain", "plain cpu", "agent",
                    "agent cpu", "ratio", "cpu r.");
        rc = 0;
        for (int r = 0; r < rounds && rc == 0; ++r) {
            wait_until([&] { return queued(qids) == 0; }, 10);
            usleep(400'000);  // the agent's last pass wrote its lines
            const uint64_t base = lines.count();
            kill(a.pid, SIGSTOP);
            fill(target, r);
            const uint64_t n = queued(qids);
            int64_t t0 = monotonic_us();
            const int64_t own0 = thread_cpu_us();
            const uint64_t got = plain_drain(qids);
            const double plain_ns = static_cast<double>(monotonic_us() - t0) * 1000.0 / static_cast<double>(got);
            const double plain_cpu_ns = static_cast<double>(thread_cpu_us() - own0) * 1000.0 / static_cast<double>(got);
            fill(target, r);
            const uint64_t n2 = queued(qids);
            const int64_t cpu0 = cpu_us(a.pid);
            t0 = monotonic_us();
            kill(a.pid, SIGCONT);
            if (!wait_until([&] { return lines.count() >= base + n2; }, 120)) {
                std::fprintf(stderr, "the agent wrote %llu of %llu lines\n",
                             static_cast<unsigned long long>(lines.count() - base), static_cast<unsigned long long>(n2));
                rc = 1;
            }
            const double agent_ns = static_cast<double>(monotonic_us() - t0) * 1000.0 / static_cast<double>(n2);
            // Its processor time until it is idle again: the export included.
            int64_t cpu = cpu_us(a.pid), was = -1;
            for (int i = 0; i < 100 && cpu != was; ++i, usleep(300'000)) was = std::exchange(cpu, cpu_us(a.pid));
            const double cpu_ns = static_cast<double>(cpu - cpu0) * 1000.0 / static_cast<double>(n2);
            std::printf("%5d %8llu %10.0f %10.0f %10.0f %10.0f %6.2f %6.2f\n", r + 1,
                        static_cast<unsigned long long>(n2), plain_ns, plain_cpu_ns, agent_ns, cpu_ns,
                        agent_ns / plain_ns, cpu_ns / plain_cpu_ns);
            std::fflush(stdout);
            if (n != got) std::fprintf(stderr, "the plain loop took %llu of %llu\n", static_cast<unsigned long long>(got),
                                       static_cast<unsigned long long>(n));
        }
    }
    TRAN_DONE();
    th_join_thread();
    if (kill(a.pid, SIGTERM) == 0) waitpid(a.pid, nullptr, 0);
    const std::string err = read_all(a.err);  // the export's last count
    const size_t at = err.rfind("otlp: ");
    if (!otlp.empty() && at != std::string::npos) std::printf("agent %s", err.substr(at, err.find('\n', at) - at + 1).c_str());
    std::filesystem::remove_all(home);
    return rc;
}
