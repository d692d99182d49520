// `varnix-agent start`: creates the host's IPC objects, drains every queue
// into JSON Lines until SIGINT or SIGTERM, then drains what is left and
// removes everything it created.  SIGHUP stops it the same way.
//
// One thread does everything but the OTLP export, which has a thread of its
// own behind a bounded buffer (collector/otlp/exporter.h).  The queues are
// read without waiting; when a pass over all of them finds nothing the agent
// sleeps a few milliseconds, so it never spins.  Signals only set a flag that
// the loop reads.
#include <signal.h>
#include <sys/msg.h>
#include <time.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "collector/agent.h"
#include "collector/agent_config.h"
#include "collector/agent_ipc.h"
#include "collector/otlp/setup.h"
#include "collector/queue_stats.h"
#include "collector/reclaim.h"
#include "collector/record_decode.h"
#include "collector/span_assembler.h"
#include "collector/sql_join.h"
#include "collector/timeline.h"
#include "core/clock.h"
#include "core/ipc.h"

namespace varnix::agent {
namespace {

constexpr long kNothing = -2;
constexpr long kGone = -3;
constexpr int kBurst = 256;  // records taken from one queue before the next is served
constexpr size_t kLinesBytes = 1 << 20;  // output gathered before it is written
constexpr timespec kIdleSleep{0, 2'000'000};
constexpr int64_t kReportEveryUs = 10'000'000;
constexpr int64_t kReclaimEveryUs = 1'000'000;
constexpr int64_t kFinalDrainUs = 2'000'000;
constexpr unsigned long kWantedQueueBytes = 4ul << 20;
constexpr unsigned long kSmallQueueBytes = 256ul << 10;

volatile sig_atomic_t stop_asked = 0;
kit::Collector::Ids crash_ids;  // read by the crash handler

void on_stop(int) { stop_asked = 1; }

void on_crash(int sig) {
    kit::remove_ids(crash_ids);
    signal(sig, SIG_DFL);
    raise(sig);
}

// Installed before the objects exist: a stop asked while they are being
// created is seen right after, and everything is removed all the same.
bool install_stop_handlers() {
    struct sigaction sa{};
    sa.sa_handler = on_stop;  // no SA_RESTART: the idle sleep ends at once
    bool ok = sigemptyset(&sa.sa_mask) == 0 && signal(SIGPIPE, SIG_IGN) != SIG_ERR;
    for (int sig : {SIGINT, SIGTERM, SIGHUP}) ok = ok && sigaction(sig, &sa, nullptr) == 0;
    return ok;
}

bool install_crash_handlers(const kit::Collector& c) {
    crash_ids = c.ids();
    bool ok = true;
    for (int sig : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT}) ok = signal(sig, on_crash) != SIG_ERR && ok;
    return ok;
}

// From here on no handler runs: the crash handler forgets the ids before the
// kernel can hand them to somebody else's new objects.
void quiet_signals() {
    sigset_t all;
    if (sigfillset(&all) != 0 || sigprocmask(SIG_BLOCK, &all, nullptr) != 0)
        std::fprintf(stderr, "varnix-agent: cannot block signals: %s\n", std::strerror(errno));
    crash_ids = kit::Collector::Ids{};
}

// Removes every object; 0, or 1 when some could not be (the kit names them).
int remove_objects(kit::Collector& c) {
    quiet_signals();
    const int failed = c.remove();
    if (failed == 0) {
        std::fprintf(stderr, "varnix-agent: every object removed\n");
        return 0;
    }
    std::fprintf(stderr, "varnix-agent: %d objects could not be removed; ipcs lists them\n", failed);
    return 1;
}

// One message from a queue without waiting: msgrcv's size, kOversized for a
// message longer than a record (taken off the queue cut), kNothing when the
// queue is empty, kGone (errno kept) when it cannot be read any more: removed
// or its permissions changed under the agent.
long receive(int qid, TRAN_LOG_MSG& m) {
    ssize_t n = msgrcv(qid, &m, VARNIX_REC_TEXT, 0, IPC_NOWAIT);
    if (n >= 0) return n;
    if (errno == E2BIG && msgrcv(qid, &m, VARNIX_REC_TEXT, 0, IPC_NOWAIT | MSG_NOERROR) >= 0) return kOversized;
    return errno == ENOMSG || errno == EINTR ? kNothing : kGone;
}

long kernel_msgmnb() {
    long v = 0;
    if (std::FILE* fp = std::fopen("/proc/sys/kernel/msgmnb", "r")) {
        if (std::fscanf(fp, "%ld", &v) != 1) v = 0;
        std::fclose(fp);
    }
    return v;
}

// Raises every queue's byte limit to the larger of kWantedQueueBytes and
// kernel.msgmnb, else at least to kernel.msgmnb: past it only with
// CAP_SYS_RESOURCE.  A limit set higher by somebody else stays.
void size_queues(const kit::Collector& c) {
    const unsigned long msgmnb = static_cast<unsigned long>(std::max(kernel_msgmnb(), 0L));
    if (c.raise_queue_bytes(std::max(kWantedQueueBytes, msgmnb)) != c.max_que_cnt() && msgmnb > 0)
        c.raise_queue_bytes(msgmnb);
    msqid_ds ds{};
    if (msgctl(c.msgq_id(0), IPC_STAT, &ds) != 0) return;
    const unsigned long bytes = ds.msg_qbytes;
    std::fprintf(stderr, "varnix-agent: each queue holds %lu bytes (%lu records)\n", bytes,
                 bytes / (VARNIX_REC_TEXT + sizeof(long)));
    if (bytes < kSmallQueueBytes)
        std::fprintf(stderr,
                     "varnix-agent: warning: queues this small drop records under load; raise kernel.msgmnb "
                     "(sysctl -w kernel.msgmnb=%lu) or give the agent CAP_SYS_RESOURCE\n",
                     kWantedQueueBytes);
}

class Drain {
public:
    Drain(const kit::Collector& c, std::FILE* out, OtlpExporter* exporter)
        : c_(c),
          out_(out),
          stats_(c.max_que_cnt(), monotonic_us()),
          exporter_(exporter),
          spans_(exporter),
          sql_([this](const Record& s, const Record* next) { write(s, spans_.statement(s, next)); }) {}

    // One pass over every queue; the number of messages taken.
    int pass() {
        int taken = 0;
        for (int q = 0; q < c_.max_que_cnt(); ++q) {
            for (int i = 0; i < kBurst && !gone_[q]; ++i) {
                const long size = receive(c_.msgq_id(q), m_);
                if (size == kNothing) break;
                if (size == kGone) {
                    std::fprintf(stderr, "varnix-agent: queue %d cannot be read any more: %s\n", q,
                                 std::strerror(errno));
                    gone_[q] = true;
                    break;
                }
                handle(q, size);
                ++taken;
            }
        }
        sql_.flush_quiet(monotonic_us());
        put_lines();
        if (taken && std::fflush(out_) != 0) write_failed();
        return taken;
    }

    // A queue was removed or closed to the agent under it: it stops.
    bool broken() const { return std::find(std::begin(gone_), std::end(gone_), true) != std::end(gone_); }

    void tick(int64_t now) {
        if (now >= next_report_) {
            stats_.report(*c_.que_info(), now, stderr);
            if (exporter_) exporter_->report(stderr);
            next_report_ = now + kReportEveryUs;
        }
        if (now >= next_reclaim_) {
            reclaim();
            next_reclaim_ = now + kReclaimEveryUs;
        }
    }

    void finish() {
        sql_.flush_all();
        put_lines();
        if (std::fflush(out_) != 0) write_failed();
        stats_.report(*c_.que_info(), monotonic_us(), stderr);
        if (exporter_) {
            exporter_->stop();
            exporter_->report(stderr);
        }
    }

private:
    void handle(int q, long size) {
        stats_.received(q);
        const int64_t now = usec_of(clock_now());
        Decoded& d = d_;
        decode_record(m_, size, q, clock_, now, d);
        if (d.error.empty() && d.sql && sql_.add(m_, d, monotonic_us(), d.error)) return;
        if (!d.error.empty()) {
            stats_.malformed();
            std::fprintf(stderr, "varnix-agent: queue %d: malformed record skipped: %s\n", q, d.error.c_str());
            malformed_line(q, d.error, malformed_bytes(m_, size), now, lines_);
            return;
        }
        sql_.end_thread(d.rec);
        write(d.rec, spans_.record(d.rec));
    }

    void write(const Record& r, const SpanRef& ref) {
        timeline_line(r, ref, lines_);
        if (lines_.size() >= kLinesBytes) put_lines();
    }

    // Whole lines, many at a time: one write per pass rather than per record.
    void put_lines() {
        if (std::fwrite(lines_.data(), 1, lines_.size(), out_) != lines_.size()) write_failed();
        lines_.clear();
    }

    void write_failed() {
        if (!write_failed_) std::fprintf(stderr, "varnix-agent: writing records failed: %s\n", std::strerror(errno));
        write_failed_ = true;
    }

    // Processes are looked at before the semaphore is taken: a registering
    // host thread waits only for the table's own bookkeeping.
    void reclaim() {
        const std::vector<Candidate> found = find_reclaimable(*c_.ptrc());
        if (found.empty()) return;
        std::vector<int64_t> tids;
        for (const Candidate& f : found) tids.push_back(static_cast<int64_t>(c_.ptrc()->entry[f.n].tid));
        Reclaimed r;
        {
            SemHold hold(c_.ids().ptrc_sem, 50);
            if (!hold.owns()) return;
            r = reclaim_entries(*c_.ptrc(), found);
        }
        if (r.released + r.orphaned > 0)
            std::fprintf(stderr, "varnix-agent: reclaimed %d released and %d orphaned process-thread entries\n",
                         r.released, r.orphaned);
        // Services still open there never end: their spans end now.
        const int64_t now = usec_of(clock_now());
        for (size_t i = 0; i < found.size(); ++i)
            if (found[i].released)
                spans_.thread_gone(found[i].pid, tids[i], now);
            else
                spans_.process_gone(found[i].pid, now);
        for (const Skipped& s : r.skipped)
            if (s.n >= VARNIX_TBL_ENTRIES || !skip_reported_[s.n]) {
                std::fprintf(stderr, "varnix-agent: process-thread entry %u left alone: %s\n", s.n, s.why);
                if (s.n < VARNIX_TBL_ENTRIES) skip_reported_[s.n] = true;
            }
    }

    const kit::Collector& c_;
    std::FILE* out_;
    QueueStats stats_;
    OtlpExporter* exporter_;
    SpanAssembler spans_;
    SqlJoiner sql_;
    LocalTime clock_;
    Decoded d_;
    std::string lines_;  // not yet written
    TRAN_LOG_MSG m_{};
    int64_t next_report_ = monotonic_us() + kReportEveryUs;
    int64_t next_reclaim_ = 0;
    bool write_failed_ = false;
    bool gone_[VARNIX_MAX_QUE_CNT] = {};
    std::vector<bool> skip_reported_ = std::vector<bool>(VARNIX_TBL_ENTRIES);  // each inconsistency once
};

int run(const kit::Collector& c, std::FILE* out, OtlpExporter* exporter) {
    Drain drain(c, out, exporter);
    while (!stop_asked && !drain.broken()) {
        const int taken = drain.pass();
        drain.tick(monotonic_us());
        if (!taken) nanosleep(&kIdleSleep, nullptr);
    }
    std::fprintf(stderr, "varnix-agent: stopping: draining the queues\n");
    const int64_t deadline = monotonic_us() + kFinalDrainUs;
    while (drain.pass() > 0 && monotonic_us() < deadline) {
    }
    drain.finish();
    return drain.broken() ? 1 : 0;
}

bool refuse_if_present(const char* cfg) {
    const std::vector<std::string> found = existing_objects(config_keys(cfg));
    if (found.empty()) return false;
    std::fprintf(stderr, "varnix-agent: refusing to start: these objects of %s exist already:\n", cfg);
    for (const std::string& f : found) std::fprintf(stderr, "  %s\n", f.c_str());
    std::fprintf(stderr, "varnix-agent: another agent may be running; nothing was changed\n");
    return true;
}

}  // namespace

int start_command(const Options& o) {
    const char* cfg = o.cfg.c_str();
    std::string url;
    if (!check_config(cfg) || !otlp_url(o.otlp, cfg, url) || refuse_if_present(cfg)) return 1;
    std::FILE* out = o.out.empty() ? stdout : std::fopen(o.out.c_str(), "w");
    if (!out) {
        std::fprintf(stderr, "varnix-agent: cannot write %s: %s\n", o.out.c_str(), std::strerror(errno));
        return 1;
    }
    if (!install_stop_handlers()) {
        std::fprintf(stderr, "varnix-agent: cannot install signal handlers\n");
        return 1;
    }
    kit::Collector c;
    if (c.create(cfg) != 0) return 1;
    if (!install_crash_handlers(c)) {
        std::fprintf(stderr, "varnix-agent: cannot install signal handlers\n");
        remove_objects(c);
        return 1;
    }
    int rc = 0;
    if (!stop_asked) {
        size_queues(c);
        std::fprintf(stderr, "varnix-agent: running with %d queues from %s; SIGINT, SIGTERM or SIGHUP stops it\n",
                     c.max_que_cnt(), cfg);
        std::unique_ptr<OtlpExporter> exporter = url.empty() ? nullptr : start_exporter(url);
        rc = url.empty() || exporter ? run(c, out, exporter.get()) : 1;
    }
    if (remove_objects(c) != 0) rc = 1;
    if (out != stdout && std::fclose(out) != 0) return 1;
    return rc;
}

}  // namespace varnix::agent
