// varnix-soak [SECONDS]: eight threads trace transactions at full rate for a
// fixed time (30 s by default) while one drainer thread empties every queue
// of a collector created for this run.  It then checks that nothing went
// missing and nothing grew:
//   - every record an entry reported sent (it returned a queue number) was
//     received, and nothing else was;
//   - every 105 an entry returned is counted in the queues' msgq_fail_cnt;
//   - the resident set at the end is that at 10% of the run, give or take a
//     small margin: no allocation or leak on the record path.
// Exit status 0 when all three hold.
//
// The library sends records of its own that no entry reports: the service
// end's call statistics (class I) and the SQL texts of a DBIO finish (sent
// when a statement reached the SQL limit).  Class I is switched off and the
// SQL limit is out of reach, so that every record is one an entry reported;
// each iteration's information record is therefore an extended one (X).
#include <pthread.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "bench/app_calls.h"
#include "kit/session.h"
#include "varnix.h"

namespace {

constexpr int kThreads = 8;
constexpr int kStatuses = 128;                       // every status the entries return
constexpr unsigned long kQueueBytes = 4ul << 20;     // where permitted
constexpr long kRssMarginKb = 8 * 1024;              // thread caches, stdio; no per-record growth

std::atomic<bool> stop{false};
std::atomic<bool> workers_done{false};

// What one thread's entries returned: the record entries (a queue number is a
// record sent) apart from the others (call start, SQL statement: 0 is no send).
struct Counts {
    uint64_t record_rc[kStatuses] = {};
    uint64_t other_rc[kStatuses] = {};
    uint64_t unknown = 0;  // a status outside 0..127

    void add(uint64_t (&table)[kStatuses], int32_t rc) {
        if (rc >= 0 && rc < kStatuses)
            ++table[rc];
        else
            ++unknown;
    }
    void merge(const Counts& o) {
        for (int i = 0; i < kStatuses; ++i) {
            record_rc[i] += o.record_rc[i];
            other_rc[i] += o.other_rc[i];
        }
        unknown += o.unknown;
    }
};

constexpr varnix::bench::AppNames kNames{"SK", "SOAK_RECV", "soak_mod", "soak.c"};

int32_t service(varnix::bench::ServiceEntry entry, const char* gid, const char* svc) {
    return varnix::bench::service(entry, kNames, gid, svc);
}
int32_t call_start(const char* func) { return varnix::bench::call_start(kNames, func); }
int32_t call_finish(const char* func) { return varnix::bench::call_finish(kNames, func); }

// One transaction: service start, a BIZCALL pair, a DBIO pair with one SQL
// statement, an information record, service end.
void transaction(Counts& c, const char* gid) {
    const char* svc = "SOAK_SERVICE";
    c.add(c.record_rc, service(TRAN_START, gid, svc));
    c.add(c.other_rc, call_start("BIZ_SOAK_CALC"));
    c.add(c.record_rc, call_finish("BIZ_SOAK_CALC"));
    c.add(c.other_rc, call_start("DBIO_SOAK_SELECT"));
    c.add(c.other_rc, TRAN_SQL_STMT(-1, 0, nullptr, 0, nullptr, 0, 1, nullptr, nullptr,
                                    "SELECT BAL FROM ACCT WHERE ACCT_NO = :1", -1));
    c.add(c.record_rc, call_finish("DBIO_SOAK_SELECT"));
    c.add(c.record_rc, TRAN_INFO_EX(-1, nullptr, 0, nullptr, 0, gid, -1, svc, -1, nullptr, 0, nullptr, 0, nullptr, 0,
                                    "S001", -1, "soak transaction done", -1));
    c.add(c.record_rc, service(TRAN_END, gid, svc));
}

void* worker(void* arg) {
    Counts& c = *static_cast<Counts*>(arg);
    static std::atomic<int> next_no{0};
    const int no = next_no++;
    char gid[40];
    for (uint64_t i = 0; !stop.load(std::memory_order_relaxed); ++i) {
        // A GID per transaction spreads the records over every queue.
        std::snprintf(gid, sizeof gid, "SOAK-T%02d-%020" PRIu64, no, i);
        transaction(c, gid);
    }
    return nullptr;
}

struct Drainer {
    const varnix::kit::Collector* collector;
    uint64_t received = 0;

    bool drain_all() {
        TRAN_LOG_MSG msg;
        bool got = false;
        while (collector->receive(msg) >= 0) {
            ++received;
            got = true;
        }
        return got;
    }
};

void* drain(void* arg) {
    Drainer& d = *static_cast<Drainer*>(arg);
    const timespec pause{0, 100'000};
    while (!workers_done.load())
        if (!d.drain_all()) nanosleep(&pause, nullptr);
    // The workers are joined: whatever they sent is in the queues by now.
    d.drain_all();
    return nullptr;
}

long rss_kb() {
    std::FILE* fp = std::fopen("/proc/self/status", "r");
    if (!fp) return -1;
    char line[256];
    long kb = -1;
    while (std::fgets(line, sizeof line, fp))
        if (std::sscanf(line, "VmRSS: %ld kB", &kb) == 1) break;
    std::fclose(fp);
    return kb;
}

uint64_t fail_count_sum(const TRAN_LOGF_QUE_INFO& q) {
    uint64_t sum = 0;
    for (uint32_t n : q.msgq_fail_cnt) sum += n;
    return sum;
}

void sleep_ms(long ms) {
    timespec t{ms / 1000, (ms % 1000) * 1'000'000};
    while (nanosleep(&t, &t) != 0) {
    }
}

void print_statuses(const char* what, const uint64_t (&table)[kStatuses]) {
    std::printf("%s:", what);
    for (int i = 0; i < kStatuses; ++i)
        if (table[i]) std::printf(" %d=%" PRIu64, i, table[i]);
    std::printf("\n");
}

varnix::kit::AgentConfig soak_config() {
    varnix::kit::AgentConfig conf;
    conf.log_flag_set = "SEVBCXQ";      // no class I: the end's statistics stay home
    conf.sql_trc_limit = 1'000'000'000;  // 1000 s: no statement reaches it
    return conf;
}

struct Run {
    Counts counts;
    uint64_t received = 0;
    long rss_early = -1, rss_end = -1;
};

int run_threads(varnix::kit::Session& s, long seconds, Run& r) {
    Counts per_thread[kThreads];
    pthread_t threads[kThreads];
    Drainer d{&s.collector()};
    pthread_t drainer;
    if (pthread_create(&drainer, nullptr, drain, &d) != 0) return -1;
    int started = 0;
    while (started < kThreads && pthread_create(&threads[started], nullptr, worker, &per_thread[started]) == 0)
        ++started;
    sleep_ms(seconds * 100);
    r.rss_early = rss_kb();
    sleep_ms(seconds * 900);
    stop = true;
    for (int i = 0; i < started; ++i) pthread_join(threads[i], nullptr);
    workers_done = true;
    pthread_join(drainer, nullptr);
    r.rss_end = rss_kb();
    for (int i = 0; i < started; ++i) r.counts.merge(per_thread[i]);
    r.received = d.received;
    return started == kThreads ? 0 : -1;
}

int report(const Run& r, uint64_t fails) {
    uint64_t sent = 0;
    for (int q = 0; q < VARNIX_MAX_QUE_CNT; ++q) sent += r.counts.record_rc[q];
    const uint64_t refused = r.counts.record_rc[VARNIX_RC_SEND_FAIL];
    print_statuses("record entries returned", r.counts.record_rc);
    print_statuses("call starts and SQL statements returned", r.counts.other_rc);
    std::printf("sent %" PRIu64 ", received %" PRIu64 ", returned 105 %" PRIu64 ", msgq_fail_cnt sum %" PRIu64
                ", unknown statuses %" PRIu64 "\n",
                sent, r.received, refused, fails, r.counts.unknown);
    std::printf("VmRSS %ld kB at 10%% of the run, %ld kB at the end\n", r.rss_early, r.rss_end);
    bool ok = true;
    auto check = [&ok](bool holds, const char* failure) {
        if (!holds) std::printf("FAIL: %s\n", failure);
        ok = ok && holds;
    };
    check(sent == r.received, "sent and received differ");
    check(refused == fails, "the 105 returns and the queues' fail counts differ");
    check(r.counts.unknown == 0, "statuses outside 0..127");
    check(r.rss_early >= 0 && r.rss_end - r.rss_early <= kRssMarginKb, "the resident set grew past the margin");
    return ok ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    const long seconds = argc > 1 ? std::strtol(argv[1], nullptr, 10) : 30;
    if (seconds < 1) {
        std::fprintf(stderr, "usage: varnix-soak [SECONDS >= 1]\n");
        return 2;
    }
    varnix::kit::Session* s = varnix::kit::Session::start("varnix-soak", soak_config());
    if (!s) return 1;
    int raised = s->collector().raise_queue_bytes(kQueueBytes);
    std::printf("queues raised to %lu bytes: %d of %d\n", kQueueBytes, raised, s->collector().max_que_cnt());
    std::fflush(stdout);
    if (int rc = TRAN_INIT(); rc != 0) {
        std::fprintf(stderr, "TRAN_INIT failed: %d\n", rc);
        return 1;
    }
    (void)s->collector().drain();  // the start-up event is no entry's
    const TRAN_LOGF_QUE_INFO& q = *s->collector().que_info();
    const uint64_t fails_before = fail_count_sum(q);
    Run r;
    if (run_threads(*s, seconds, r) != 0) {
        std::fprintf(stderr, "cannot start the threads\n");
        return 1;
    }
    int rc = report(r, fail_count_sum(q) - fails_before);
    if (TRAN_DONE() != 0) rc = 1;
    return rc;
}
