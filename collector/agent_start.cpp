// `varnix-agent start`: creates the host's IPC objects, or takes over those
// an agent of the same configuration left when it crashed or was killed,
// drains every queue into JSON Lines until SIGINT, SIGTERM or SIGHUP, then
// stops without losing a record that a queue accepted and removes every
// object.
//
// One thread does everything but the OTLP export, which has a thread of its
// own behind a bounded buffer (collector/otlp/exporter.h).  The queues are
// read without waiting; when a pass over all of them finds nothing the agent
// sleeps a few milliseconds, so it never spins.  Signals only set a flag that
// the loop reads.
//
// The stop: sending is switched off in the control block, then each queue's
// byte limit is set to 0.  From then on no message fits in a queue: the
// kernel refuses every send at once (the library counts it as refused), so
// nothing can be accepted any more, and the queues are read until each is
// empty.  Only then are the objects removed.
//
// A crash removes nothing: the kernel takes the agent's token back
// (agent_objects.h) and the next `start` takes the objects over, so traced
// processes go on with the control block, tables and queues they attached.
#include <signal.h>
#include <sys/msg.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>

#include "collector/agent.h"
#include "collector/agent_config.h"
#include "collector/agent_ipc.h"
#include "collector/agent_objects.h"
#include "collector/ipc_access.h"
#include "collector/line_writer.h"
#include "collector/otlp/setup.h"
#include "collector/queue_stats.h"
#include "collector/reclaim.h"
#include "collector/record_decode.h"
#include "collector/span_assembler.h"
#include "collector/sql_join.h"
#include "collector/timeline.h"
#include "core/clock.h"
#include "core/ipc.h"
#include "core/readcfg.h"

namespace varnix::agent {
namespace {

constexpr long kNothing = -2;
constexpr long kGone = -3;
constexpr int kBurst = 256;  // records taken from one queue before the next is served
constexpr timespec kIdleSleep{0, 2'000'000};
constexpr int64_t kReportEveryUs = 10'000'000;
constexpr int64_t kReclaimEveryUs = 1'000'000;
// Closed queues hold at most 16 times kernel.msgmnb: read at tens of thousands
// of records a second, far less than this; past it the rest is reported lost.
constexpr int64_t kStopBoundUs = 30'000'000;
constexpr unsigned long kWantedQueueBytes = 4ul << 20;
constexpr unsigned long kSmallQueueBytes = 256ul << 10;

volatile sig_atomic_t stop_asked = 0;

void on_stop(int) { stop_asked = 1; }

// A stop that outlasts its bound by far is stuck writing (a reader of standard
// output that stopped reading): the agent ends and leaves the objects, with
// what they hold, to the next `start`.
constexpr unsigned kStopOverrunSecs = kStopBoundUs / 1'000'000 + 10;
void on_stop_overrun(int) {
    static constexpr char kWhy[] =
        "varnix-agent: the stop is stuck writing records; the objects stay for the next start to take over\n";
    [[maybe_unused]] const ssize_t said = write(STDERR_FILENO, kWhy, sizeof kWhy - 1);  // nothing to do if not
    _exit(1);
}

// Installed before the objects exist: a stop asked while they are being
// created or taken over is seen right after, and everything is removed all
// the same.
bool install_stop_handlers() {
    struct sigaction sa{};
    sa.sa_handler = on_stop;  // no SA_RESTART: the idle sleep ends at once
    // A closed reader or a file-size limit fails the write, which is counted.
    bool ok = sigemptyset(&sa.sa_mask) == 0;
    for (int sig : {SIGPIPE, SIGXFSZ}) ok = ok && signal(sig, SIG_IGN) != SIG_ERR;
    for (int sig : {SIGINT, SIGTERM, SIGHUP}) ok = ok && sigaction(sig, &sa, nullptr) == 0;
    return ok;
}

// Removes every object; 0, or 1 when some could not be (each is named).
int remove_objects(collector::HostObjects& c) {
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
    ssize_t n;
    do n = msgrcv(qid, &m, VARNIX_REC_TEXT, 0, IPC_NOWAIT);
    while (n < 0 && errno == EINTR);
    if (n >= 0) return n;
    if (errno == E2BIG && msgrcv(qid, &m, VARNIX_REC_TEXT, 0, IPC_NOWAIT | MSG_NOERROR) >= 0) return kOversized;
    return errno == ENOMSG ? kNothing : kGone;
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
void size_queues(const collector::HostObjects& c) {
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

// The records waiting in the queues, and whether one of them is closed.
struct QueueState {
    unsigned long records = 0;
    bool closed = false;
};
QueueState queue_state(const collector::HostObjects& c) {
    QueueState s;
    for (int q = 0; q < c.max_que_cnt(); ++q) {
        msqid_ds ds{};
        if (msgctl(c.msgq_id(q), IPC_STAT, &ds) != 0) continue;
        s.records += ds.msg_qnum;
        s.closed = s.closed || ds.msg_qbytes == 0;
    }
    return s;
}

// Switches sending off and closes every queue: once this returns, the kernel
// accepts no message any more.
void close_queues(const collector::HostObjects& c) {
    __atomic_store_n(&c.que_info()->log_flag_set, uint8_t{0}, __ATOMIC_RELAXED);
    for (int q = 0; q < c.max_que_cnt(); ++q) {
        msqid_ds ds{};
        if (msgctl(c.msgq_id(q), IPC_STAT, &ds) == 0) {
            ds.msg_qbytes = 0;  // lowering takes no privilege
            if (msgctl(c.msgq_id(q), IPC_SET, &ds) == 0) continue;
        }
        std::fprintf(stderr, "varnix-agent: queue %d cannot be closed: %s; records it takes after the drain are lost\n",
                     q, std::strerror(errno));
    }
}

class Drain {
public:
    Drain(const collector::HostObjects& c, LineWriter& out, OtlpExporter* exporter)
        : c_(c),
          out_(out),
          stats_(c.max_que_cnt(), monotonic_us()),
          exporter_(exporter),
          spans_(exporter),
          sql_([this](const Record& s, const Record* next) { write(s, spans_.statement(s, next)); }) {}

    // One pass over every queue; the number of messages taken.  0 means that
    // every queue readable said it was empty.
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
        out_.flush();
        return taken;
    }

    // A queue was removed or closed to the agent under it: it stops.
    bool broken() const { return std::find(std::begin(gone_), std::end(gone_), true) != std::end(gone_); }

    void tick(int64_t now) {
        stats_.report_malformed(now, stderr);
        if (now >= next_report_) {
            stats_.report(*c_.que_info(), out_.unwritten(), now, stderr);
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
        out_.flush();
        stats_.report_malformed(INT64_MAX, stderr);
        stats_.report(*c_.que_info(), out_.unwritten(), monotonic_us(), stderr);
        if (out_.unwritten() > 0)
            std::fprintf(stderr, "varnix-agent: %llu records could not be written to %s\n",
                         static_cast<unsigned long long>(out_.unwritten()), out_.name().c_str());
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
            stats_.malformed(q, d.error, monotonic_us(), stderr);
            line_.clear();
            malformed_line(q, d.error, malformed_bytes(m_, size), now, line_);
            out_.add(line_);
            return;
        }
        sql_.end_thread(d.rec);
        write(d.rec, spans_.record(d.rec));
    }

    void write(const Record& r, const SpanRef& ref) {
        line_.clear();
        timeline_line(r, ref, line_);
        out_.add(line_);
    }

    // In short batches under the table semaphore: a registering host thread
    // waits for one batch at most.
    void reclaim() {
        const Reclaimed r = reclaim_entries(*c_.ptrc(), c_.ids().ptrc_sem);
        if (r.released + r.orphaned + r.lost > 0)
            std::fprintf(stderr,
                         "varnix-agent: reclaimed %d released, %d orphaned and %d lost process-thread entries\n",
                         r.released, r.orphaned, r.lost);
        // Services still open there never end: their spans end now.
        const int64_t now = usec_of(clock_now());
        for (const GoneThread& t : r.gone)
            if (t.released)
                spans_.thread_gone(t.pid, static_cast<int64_t>(t.tid), now);
            else
                spans_.process_gone(t.pid, now);
        for (const Skipped& s : r.skipped)
            if (s.n >= VARNIX_TBL_ENTRIES || !skip_reported_[s.n]) {
                std::fprintf(stderr, "varnix-agent: process-thread entry %u left alone: %s\n", s.n, s.why);
                if (s.n < VARNIX_TBL_ENTRIES) skip_reported_[s.n] = true;
            }
    }

    const collector::HostObjects& c_;
    LineWriter& out_;
    QueueStats stats_;
    OtlpExporter* exporter_;
    SpanAssembler spans_;
    SqlJoiner sql_;
    LocalTime clock_;
    Decoded d_;
    std::string line_;  // the line being written
    TRAN_LOG_MSG m_{};
    int64_t next_report_ = monotonic_us() + kReportEveryUs;
    int64_t next_reclaim_ = 0;
    bool gone_[VARNIX_MAX_QUE_CNT] = {};
    std::vector<bool> skip_reported_ = std::vector<bool>(VARNIX_TBL_ENTRIES);  // each inconsistency once
};

int stop(const collector::HostObjects& c, Drain& drain) {
    const int64_t begin = monotonic_us();
    std::fprintf(stderr, "varnix-agent: stopping: sending switched off and the queues closed; draining them\n");
    if (signal(SIGALRM, on_stop_overrun) != SIG_ERR) alarm(kStopOverrunSecs);
    close_queues(c);
    unsigned long long drained = 0;
    for (int taken; (taken = drain.pass()) > 0;) {
        drained += static_cast<unsigned>(taken);
        if (monotonic_us() - begin >= kStopBoundUs) {
            std::fprintf(stderr, "varnix-agent: the stop's bound of %lld s is reached: %lu records left in the queues "
                         "are lost\n", static_cast<long long>(kStopBoundUs / 1'000'000), queue_state(c).records);
            break;
        }
    }
    drain.finish();
    std::fprintf(stderr, "varnix-agent: stopped in %.3f s; the final drain took %llu records\n",
                 static_cast<double>(monotonic_us() - begin) / 1e6, drained);
    return drain.broken() ? 1 : 0;
}

int run(const collector::HostObjects& c, LineWriter& out, OtlpExporter* exporter) {
    Drain drain(c, out, exporter);
    while (!stop_asked && !drain.broken()) {
        const int taken = drain.pass();
        drain.tick(monotonic_us());
        if (!taken) nanosleep(&kIdleSleep, nullptr);
    }
    return stop(c, drain);
}

bool any_object(const ConfigKeys& k, const collector::HostObjects::Ids& ids) {
    const std::vector<ConfigObject> objs = config_objects(k, ids);
    return std::any_of(objs.begin(), objs.end(), [](const ConfigObject& o) { return o.id >= 0; });
}

// Objects that exist while no agent runs are taken over when they are what an
// agent of this configuration leaves; else nothing is touched.
bool refuse_to_adopt(const ConfigKeys& k, const collector::HostObjects::Ids& ids, AgentToken& token, const char* cfg) {
    std::vector<std::string> why = adoption_problems(k, ids);
    if (why.empty() && (token.held() || token.take(ids.ptrc_sem))) return false;
    if (why.empty()) why.push_back(std::string("the agent's semaphore cannot be taken: ") + std::strerror(errno));
    std::fprintf(stderr, "varnix-agent: refusing to start: no agent runs with the objects of %s, and they cannot be "
                 "taken over:\n", cfg);
    for (const std::string& w : why) std::fprintf(stderr, "  %s\n", w.c_str());
    std::fprintf(stderr, "varnix-agent: nothing was changed; `varnix-agent cleanup -c %s` removes them\n", cfg);
    return true;
}

// The switches a previous agent left stay, but for one killed during its stop:
// sending was switched off and a queue closed.  Sending comes back as
// TRAN_LOG_FLAG_SET says once the queues are open again.
bool killed_while_stopping(const collector::HostObjects& c) {
    return __atomic_load_n(&c.que_info()->log_flag_set, __ATOMIC_RELAXED) == 0 && queue_state(c).closed;
}

void switch_sending_on(const collector::HostObjects& c, const char* cfg) {
    char letters[kCfgTokenMax + 1];
    if (get_nth_token_in_file_section(cfg, "TRAN_LOGF", "TRAN_LOG_FLAG_SET", 1, letters) != 1) return;
    __atomic_store_n(&c.que_info()->log_flag_set, get_log_flag_set(letters), __ATOMIC_RELAXED);
    std::fprintf(stderr, "varnix-agent: the previous agent was killed while it stopped: sending switched on again "
                 "(log_flag_set=%s)\n", letters);
}

}  // namespace

int start_command(const Options& o) {
    const char* cfg = o.cfg.c_str();
    std::string url;
    collector::Access access;
    if (!check_config(cfg) || !check_every_key(cfg) || !ipc_access(cfg, access) || !otlp_url(o.otlp, cfg, url))
        return 1;
    const ConfigKeys keys = config_keys(cfg);
    const collector::HostObjects::Ids found = collector::ids_of(keys.keys, keys.max_que_cnt);
    AgentToken token;
    if (refuse_if_agent_runs(token, found.ptrc_sem, "refusing to start", cfg)) return 1;
    const bool adopting = any_object(keys, found);
    if (adopting && refuse_to_adopt(keys, found, token, cfg)) return 1;
    LineWriter out(o.out);
    if (!out.ok()) return 1;
    const std::unique_ptr<OtlpExporter> exporter = url.empty() ? nullptr : start_exporter(url);
    if (!url.empty() && !exporter) return 1;
    if (!install_stop_handlers()) {
        std::fprintf(stderr, "varnix-agent: cannot install signal handlers: %s\n", std::strerror(errno));
        return 1;
    }
    collector::HostObjects c(access);
    if (adopting) {
        if (c.adopt(found, keys.max_que_cnt) != 0) return 1;
        std::fprintf(stderr, "varnix-agent: took over the objects of %s that a previous agent left, with %lu records "
                     "queued\n", cfg, queue_state(c).records);
    } else if (c.create(cfg) != 0) {
        return 1;
    }
    const bool resume = adopting && killed_while_stopping(c);
    size_queues(c);
    if (resume) switch_sending_on(c, cfg);
    std::fprintf(stderr, "varnix-agent: the objects have mode %04o and group %u\n", static_cast<unsigned>(access.mode),
                 static_cast<unsigned>(access.gid));
    std::fprintf(stderr, "varnix-agent: running with %d queues from %s; SIGINT, SIGTERM or SIGHUP stops it\n",
                 c.max_que_cnt(), cfg);
    int rc = run(c, out, exporter.get());  // a stop asked already drains at once
    if (remove_objects(c) != 0) rc = 1;
    token.forget();
    return rc;
}

}  // namespace varnix::agent
