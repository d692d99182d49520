#include "bench/scenarios.h"

#include <errno.h>
#include <sys/msg.h>

#include <cstdio>
#include <cstring>

#include "bench/app_calls.h"
#include "varnix.h"

namespace varnix::bench {
namespace {

constexpr const char* kSvcId = "BENCH_SERVICE";
// One hour: no call of a benchmark lasts that long, so a BIZCALL stays below.
constexpr int64_t kNeverUs = 3'600'000'000;

bool is_queue_number(int32_t rc) { return rc >= 0 && rc < VARNIX_MAX_QUE_CNT; }

// The service around a scenario's steps is open even when a full queue
// refused its record.
int service_status(int32_t rc) { return is_queue_number(rc) || rc == VARNIX_RC_SEND_FAIL ? 0 : rc; }

constexpr bench::AppNames kNames{"BN", "BENCH_RECV", "bench_mod", "bench.c"};

int32_t service(bench::ServiceEntry entry, const Caller& c) { return bench::service(entry, kNames, c.gid, kSvcId); }
int32_t call_start(const char* func) { return bench::call_start(kNames, func); }
int32_t call_finish(const char* func) { return bench::call_finish(kNames, func); }

void floor_step(Caller& c) {
    if (msgsnd(c.floor_qid, &c.floor_msg, VARNIX_REC_TEXT, IPC_NOWAIT) == 0) return;
    c.tally.record(errno == EAGAIN ? VARNIX_RC_SEND_FAIL : -errno);
}

void event_step(Caller& c) {
    c.tally.record(TRAN_EVENT(-1, "BN", -1, "1", -1, c.gid, -1, kSvcId, -1, nullptr, 0, nullptr, 0, nullptr, 0, "2001",
                              -1, "BENCH_RECV", -1, "1", -1, "benchmark event", -1));
}

void info_step(Caller& c) {
    c.tally.record(TRAN_INFO(-1, "BN", -1, "1", -1, c.gid, -1, kSvcId, -1, nullptr, 0, nullptr, 0, nullptr, 0,
                             "benchmark information", -1));
}

void service_step(Caller& c) {
    c.tally.record(service(TRAN_START, c));
    c.tally.record(service(TRAN_END, c));
}

void bizcall_fast_step(Caller& c) {
    c.tally.expect(call_start("BIZ_BENCH_CALC"), 0);
    c.tally.expect(call_finish("BIZ_BENCH_CALC"), VARNIX_RC_BIZ_FAST);
}

void bizcall_step(Caller& c) {
    c.tally.expect(call_start("BIZ_BENCH_CALC"), 0);
    c.tally.record(call_finish("BIZ_BENCH_CALC"));
}

void dbio_step(Caller& c) {
    c.tally.expect(call_start("DBIO_BENCH_SELECT"), 0);
    c.tally.expect(TRAN_SQL_STMT(-1, 0, nullptr, 0, nullptr, 0, 1, nullptr, nullptr,
                                 "SELECT BAL FROM ACCT WHERE ACCT_NO = :1", -1),
                   0);
    c.tally.record(call_finish("DBIO_BENCH_SELECT"));
}

// A whole transaction as a server traces one: its service, three quick
// business calls, a database call with its statement, a notice and the end,
// which adds the call statistics: six records.
void transaction_step(Caller& c) {
    c.tally.record(service(TRAN_START, c));
    for (int i = 0; i < 3; ++i) bizcall_fast_step(c);
    dbio_step(c);
    info_step(c);
    c.tally.record(service(TRAN_END, c));
}

// A 600-byte standard telegram of the calling thread's transaction: its
// length, GID, receiving service, normal result and channel type where the
// field table puts them, blanks elsewhere.  The server passes the GID as the
// telegram carries it, blank-padded, so no linked-transaction notice is due.
struct Telegram {
    char bytes[600];
    char gid[33];
};

Telegram standard_telegram(const char* gid) {
    Telegram t;
    std::memset(t.bytes, ' ', sizeof t.bytes);
    auto put = [&t](int at, const char* text) { std::memcpy(t.bytes + at, text, std::strlen(text)); };
    put(0, "00000600"), put(9, gid), put(132, "BENCH_RECV"), put(188, "0"), put(209, "WEB");
    std::memcpy(t.gid, t.bytes + 9, 32);
    t.gid[32] = '\0';
    return t;
}

void telegram_step(Caller& c) {
    thread_local const Telegram tel = standard_telegram(c.gid);
    const char* t = tel.bytes;
    c.tally.record(TRAN_STARTX(-1, "BN", -1, "1", -1, tel.gid, -1, kSvcId, -1, t, sizeof tel.bytes, 1, 1));
    c.tally.record(TRAN_ENDX(-1, "BN", -1, "1", -1, tel.gid, -1, kSvcId, -1, t, sizeof tel.bytes, 1, 1));
}

constexpr Scenario kScenarios[] = {
    {"floor", "msgsnd of one 784-byte record, IPC_NOWAIT", false, 1, {}, floor_step},
    {"event", "TRAN_EVENT", true, 1, {}, event_step},
    {"info", "TRAN_INFO", true, 1, {}, info_step},
    {"service", "TRAN_START + TRAN_END", false, 2, {}, service_step},
    {"telegram", "TRAN_STARTX + TRAN_ENDX on a 600-byte standard telegram, capture off", false, 2, {}, telegram_step},
    {"bizcall_fast", "BIZCALL pair below its limit (no record)", true, 0, {kNeverUs, 0, 0}, bizcall_fast_step},
    {"bizcall", "BIZCALL pair, limit 0", true, 1, {}, bizcall_step},
    {"dbio", "DBIO pair with one TRAN_SQL_STMT, limits 0", true, 2, {}, dbio_step},
    {"transaction", "service with 3 fast BIZCALLs, a DBIO with SQL and a TRAN_INFO: 6 records", false, 6,
     {kNeverUs, 0, 0}, transaction_step},
};

}  // namespace

void Tally::record(int32_t rc) {
    if (!is_queue_number(rc)) other(rc);
}

void Tally::expect(int32_t rc, int32_t want) {
    if (rc != want) other(rc);
}

void Tally::other(int32_t rc) {
    if (rc == VARNIX_RC_SEND_FAIL) {
        ++fails;
    } else if (!unexpected) {
        unexpected = true;
        first_unexpected = rc;
    }
}

Caller::Caller(int thread_no, int qid) : floor_qid(qid) {
    std::snprintf(gid, sizeof gid, "BENCH-GID-T%02d", thread_no);
    floor_msg.mtype = 1;
    const uint32_t body = VARNIX_REC_BODY;
    std::memcpy(floor_msg.text, &body, sizeof body);
    std::memset(floor_msg.text + sizeof body, ' ', VARNIX_REC_BODY);
}

std::span<const Scenario> scenarios() { return kScenarios; }

const Scenario* find_scenario(const char* name) {
    for (const Scenario& s : kScenarios)
        if (std::strcmp(s.name, name) == 0) return &s;
    return nullptr;
}

int begin_scenario(const Scenario& s, Caller& c, TRAN_LOGF_QUE_INFO& que_info) {
    que_info.call_trc_limit = s.limits.call_us;
    que_info.dbio_trc_limit = s.limits.dbio_us;
    que_info.sql_trc_limit = s.limits.sql_us;
    if (!s.in_service) return 0;
    return service_status(service(TRAN_START, c));
}

int end_scenario(const Scenario& s, Caller& c) {
    if (!s.in_service) return 0;
    return service_status(service(TRAN_END, c));
}

}  // namespace varnix::bench
