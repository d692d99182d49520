// varnix-bench: what each tracing entry costs, against a collector created
// for this run whose queues one drainer thread keeps empty.
//
//   varnix-bench [Google Benchmark flags]   every scenario, one table
//   varnix-bench --loop=NAME [--iterations=N]
//                                           N steps of one scenario and
//                                           nothing else, for callgrind
//   varnix-bench --list                     the scenario names
//
// Each scenario but the floor runs twice: first as NAME/no_send, whose
// records are built and dispatched as ever but whose msgsnd system calls are
// switched off (send_switch.h), then as NAME.  Besides the time per step, the
// table reports
//   records  records the drainer received per step,
//   fail     steps' sends the queues refused (105): such a step is cheaper
//            than a real one, so a figure with fail > 0 is too low,
//   ratio    time per step over the floor's (a bare msgsnd of one record),
//   own_ns   the library's own time per record: NAME/no_send's time per step
//            over the records a step sends (per step when it sends none),
//   send_ns  the rest of NAME's time per step, per record: what sending one
//            cost in that step (the floor's whole time; none for no_send).
// ratio needs the floor, and own_ns and send_ns the no_send run, measured
// earlier in the same run.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <string_view>
#include <utility>

#include "bench/drainer.h"
#include "bench/scenarios.h"
#include "bench/send_switch.h"
#include "kit/session.h"
#include "varnix.h"

#if defined(VARNIX_HAVE_CALLGRIND)
#include <valgrind/callgrind.h>
#else
#define CALLGRIND_START_INSTRUMENTATION
#define CALLGRIND_STOP_INSTRUMENTATION
#define CALLGRIND_TOGGLE_COLLECT
#endif

namespace {

using varnix::bench::Caller;
using varnix::bench::Drainer;
using varnix::bench::Scenario;

constexpr unsigned long kQueueBytes = 4ul << 20;  // where permitted
constexpr long kLoopWarmup = 1000;                // steps before the counted ones
// Steps between two drains in a loop: four, or fewer when their records
// would not fit the 20 of a default-sized queue with room to spare.
constexpr long kLoopBatch = 4;
constexpr long kLoopBatchRecords = 12;

long loop_batch(const Scenario& sc) {
    return std::clamp(kLoopBatchRecords / std::max(1, sc.records), 1L, kLoopBatch);
}

// What every benchmark works against.
struct Rig {
    varnix::kit::Collector* collector;
    Drainer* drainer;
};

// Drainer counts on thread 0, which alone reports "records".  With several
// threads, the others' service start and end around the loop may fall into
// the count: a few records in millions.
struct RecordCount {
    uint64_t before = 0;
};

void report_step_errors(benchmark::State& state, const Caller& c) {
    if (!c.tally.unexpected) return;
    char msg[64];
    std::snprintf(msg, sizeof msg, "a step returned %d", c.tally.first_unexpected);
    state.SkipWithError(msg);
}

// Runs the scenario's steps; with `sends` off, the library's sends do not
// reach the kernel, and no record may arrive.
void run_scenario(benchmark::State& state, const Rig& rig, const Scenario& sc, bool sends) {
    varnix::bench::set_sends(sends);
    Caller c(state.thread_index(), rig.collector->msgq_id(0));
    const int rc = begin_scenario(sc, c, *rig.collector->que_info());
    if (rc != 0) state.SkipWithError("the scenario's service did not start");
    const bool counts = state.thread_index() == 0;
    RecordCount n;
    if (counts) {
        rig.drainer->settle();
        n.before = rig.drainer->received();
    }
    // Entered even after an error: the threads meet at the loop's start.
    for (auto _ : state) sc.step(c);
    if (counts) {
        rig.drainer->settle();
        const uint64_t received = rig.drainer->received() - n.before;
        const double steps = static_cast<double>(state.iterations()) * state.threads();
        state.counters["records"] = static_cast<double>(received) / steps;
        if (!sends && received != 0) state.SkipWithError("records arrived while sends were off");
    }
    state.counters["fail"] = static_cast<double>(c.tally.fails);
    state.SetItemsProcessed(state.iterations());
    report_step_errors(state, c);
    if (end_scenario(sc, c) != 0 && !state.error_occurred()) state.SkipWithError("the scenario's service did not end");
    varnix::bench::set_sends(true);
}

constexpr std::string_view kNoSend = "/no_send";

// The console table with ratio, own_ns and send_ns added, from the figures
// it prints.
class Reporter : public benchmark::ConsoleReporter {
public:
    // One column per counter; colours only on a terminal.
    Reporter() : ConsoleReporter(isatty(STDOUT_FILENO) ? OO_ColorTabular : OO_Tabular) {}

    void ReportRuns(const std::vector<Run>& runs) override {
        std::vector<Run> out(runs);
        for (Run& r : out) derive(r);
        ConsoleReporter::ReportRuns(out);
    }

private:
    // Every row gets every column: the console starts a new table wherever
    // the columns change.  The floor is all send; a no_send run has none.
    void derive(Run& r) {
        if (r.error_occurred || r.run_type != Run::RT_Iteration) return;
        const double ns = r.GetAdjustedRealTime();
        std::string name = r.run_name.function_name;
        if (name == "floor") floor_ns_ = ns;
        if (floor_ns_ > 0) r.counters["ratio"] = ns / floor_ns_;
        const bool no_send = name.ends_with(kNoSend);
        if (no_send) name.resize(name.size() - kNoSend.size());
        const Scenario* sc = varnix::bench::find_scenario(name.c_str());
        if (!sc) return;
        const double records = sc->records > 0 ? sc->records : 1;  // per step for a pair that sends none
        if (name == "floor") {
            r.counters["own_ns"] = 0;
            r.counters["send_ns"] = ns;
        } else if (no_send) {
            own_ns_[{name, r.threads}] = ns;
            r.counters["own_ns"] = ns / records;
            r.counters["send_ns"] = 0;
        } else if (const auto own = own_ns_.find({name, r.threads}); own != own_ns_.end()) {
            r.counters["own_ns"] = own->second / records;
            r.counters["send_ns"] = sc->records > 0 ? (ns - own->second) / records : 0;
        }
    }

    double floor_ns_ = 0;
    std::map<std::pair<std::string, int64_t>, double> own_ns_;  // no_send time by scenario and threads
};

void register_run(const Rig& rig, const Scenario& sc, const std::string& name, bool sends) {
    auto* b = benchmark::RegisterBenchmark(name.c_str(), [&rig, &sc, sends](benchmark::State& st) {
        run_scenario(st, rig, sc, sends);
    });
    b->Unit(benchmark::kNanosecond)->UseRealTime();
    // Information records are what many threads of a server send at once:
    // their throughput with 1, 2 and 8 threads.
    if (std::strcmp(sc.name, "info") == 0) b->Threads(1)->Threads(2)->Threads(8);
}

// The floor is a send and nothing else: it has no run without sends.
void register_all(const Rig& rig) {
    for (const Scenario& sc : varnix::bench::scenarios()) {
        if (std::strcmp(sc.name, "floor") != 0) register_run(rig, sc, std::string(sc.name) + std::string(kNoSend), false);
        register_run(rig, sc, sc.name, true);
    }
}

int run_benchmarks(int argc, char** argv, const Rig& rig) {
    register_all(rig);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 2;
    Reporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();
    return 0;
}

// N steps of one scenario, counted by callgrind and nothing else: its
// instruction count divided by N is the cost of one step.  Under valgrind the
// drainer runs only when this thread waits, so the steps go in batches small
// enough for one queue, with collection switched off while the drainer
// empties it (callgrind.sh starts with collection off).
void counted_steps(const Rig& rig, const Scenario& sc, Caller& c, long n) {
    CALLGRIND_START_INSTRUMENTATION;
    for (long done = 0; done < n;) {
        const long batch = std::min(loop_batch(sc), n - done);
        CALLGRIND_TOGGLE_COLLECT;
        for (long i = 0; i < batch; ++i) sc.step(c);
        CALLGRIND_TOGGLE_COLLECT;
        rig.drainer->settle();
        done += batch;
    }
    CALLGRIND_STOP_INSTRUMENTATION;
}

int run_loop(const Rig& rig, const Scenario& sc, long n) {
    Caller c(0, rig.collector->msgq_id(0));
    if (int rc = begin_scenario(sc, c, *rig.collector->que_info()); rc != 0) {
        std::fprintf(stderr, "%s: the service did not start: %d\n", sc.name, rc);
        return 1;
    }
    for (long i = 0; i < kLoopWarmup; ++i) {
        sc.step(c);
        if (i % loop_batch(sc) == 0) rig.drainer->settle();
    }
    rig.drainer->settle();
    c.tally = {};
    const uint64_t before = rig.drainer->received();
    counted_steps(rig, sc, c, n);
    const uint64_t received = rig.drainer->received() - before;
    const double records = static_cast<double>(received) / static_cast<double>(n);
    const int end_rc = end_scenario(sc, c);
    std::printf("loop %s: %ld steps, records %.3f, fail %llu\n", sc.name, n, records,
                static_cast<unsigned long long>(c.tally.fails));
    if (c.tally.unexpected) std::fprintf(stderr, "%s: a step returned %d\n", sc.name, c.tally.first_unexpected);
    // Every record a step sends arrives, but for those a full queue refused.
    const uint64_t due = static_cast<uint64_t>(sc.records) * static_cast<uint64_t>(n) - c.tally.fails;
    if (received != due)
        std::fprintf(stderr, "%s: %llu records arrived, %llu were sent\n", sc.name,
                     static_cast<unsigned long long>(received), static_cast<unsigned long long>(due));
    return c.tally.unexpected || end_rc != 0 || received != due ? 1 : 0;
}

// The options of this program, taken out of argv before Google Benchmark
// sees it.
struct Options {
    const char* loop = nullptr;
    long iterations = 10000;
    bool list = false;
};

bool take_option(const char* arg, Options& o) {
    if (std::strncmp(arg, "--loop=", 7) == 0) {
        o.loop = arg + 7;
    } else if (std::strncmp(arg, "--iterations=", 13) == 0) {
        o.iterations = std::strtol(arg + 13, nullptr, 10);
    } else if (std::strcmp(arg, "--list") == 0) {
        o.list = true;
    } else {
        return false;
    }
    return true;
}

Options take_options(int& argc, char** argv) {
    Options o;
    int kept = 1;
    for (int i = 1; i < argc; ++i)
        if (!take_option(argv[i], o)) argv[kept++] = argv[i];
    argc = kept;
    argv[argc] = nullptr;
    return o;
}

varnix::kit::AgentConfig bench_config() {
    varnix::kit::AgentConfig conf;
    // Millions of calls in one service must not look like an endless loop:
    // that notice would raise the limits and silence the call records.
    conf.infinite_loop_base_cnt = 2'147'483'647;
    return conf;
}

int run(const Options& o, int argc, char** argv, const Rig& rig) {
    if (!o.loop) return run_benchmarks(argc, argv, rig);
    const Scenario* sc = varnix::bench::find_scenario(o.loop);
    if (!sc || o.iterations < 1) {
        std::fprintf(stderr, "usage: varnix-bench --loop=NAME [--iterations=N >= 1] (names: varnix-bench --list)\n");
        return 2;
    }
    return run_loop(rig, *sc, o.iterations);
}

int list() {
    for (const Scenario& sc : varnix::bench::scenarios()) std::printf("%-14s %s\n", sc.name, sc.what);
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    const Options o = take_options(argc, argv);
    if (o.list) return list();
    varnix::kit::Session* s = varnix::kit::Session::start("varnix-bench", bench_config());
    if (!s) return 1;
    const int raised = s->collector().raise_queue_bytes(kQueueBytes);
    std::fprintf(stderr, "queues raised to %lu bytes: %d of %d\n", kQueueBytes, raised, s->collector().max_que_cnt());
    if (int rc = TRAN_INIT(); rc != 0) {
        std::fprintf(stderr, "TRAN_INIT failed: %d\n", rc);
        return 1;
    }
    Drainer drainer(s->collector());
    int rc = 1;
    if (drainer.start() == 0) {
        rc = run(o, argc, argv, Rig{&s->collector(), &drainer});
        drainer.stop();
    } else {
        std::fprintf(stderr, "cannot start the drainer\n");
    }
    if (TRAN_DONE() != 0) rc = 1;
    th_join_thread();
    return rc;
}
