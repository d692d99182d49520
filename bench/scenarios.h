// What the benchmarks measure: one step per scenario (one entry call, or the
// pair an application makes), called through the public API as an
// application calls it (the calling thread, NUL-terminated texts), plus the
// floor every record-producing entry stands on, a bare msgsnd of one record.
#pragma once

#include <cstdint>
#include <span>

#include "varnix_collector.h"

namespace varnix::bench {

// What the steps of one thread returned: refused sends (105, or EAGAIN for
// the bare msgsnd) and the first status that no step of the scenario expects.
struct Tally {
    uint64_t fails = 0;
    bool unexpected = false;
    int32_t first_unexpected = 0;

    // A record entry: a queue number is a record sent.
    void record(int32_t rc);
    // An entry whose success is one exact status (a call start's 0, a fast
    // BIZCALL finish's 110).
    void expect(int32_t rc, int32_t want);

private:
    void other(int32_t rc);
};

// One calling thread.
struct Caller {
    Caller(int thread_no, int floor_qid);

    char gid[32];  // one per thread: threads spread over the queues
    int floor_qid;
    TRAN_LOG_MSG floor_msg;
    Tally tally;
};

// The call limits (microseconds) the control block holds while a scenario
// runs; they take effect at an outermost service start.
struct Limits {
    int64_t call_us = 0, dbio_us = 0, sql_us = 0;
};

struct Scenario {
    const char* name;   // benchmark and loop name
    const char* what;   // one line for the listing
    bool in_service;    // the steps run inside a service the runner opens
    int records;        // records one step sends
    Limits limits;
    void (*step)(Caller&);
};

std::span<const Scenario> scenarios();
// Null when there is none of that name.
const Scenario* find_scenario(const char* name);

// Writes the scenario's limits into the control block.  Then, when the
// scenario runs inside a service, opens it: 0, or the status of the start.
int begin_scenario(const Scenario& s, Caller& c, TRAN_LOGF_QUE_INFO& que_info);
// Closes what begin_scenario opened: 0, or the status of the end.
int end_scenario(const Scenario& s, Caller& c);

}  // namespace varnix::bench
