// The tracing API against a live collector.  An input is a sequence of
// operations: a code byte, then the operation's arguments (see api_ops.cpp
// and api_args.cpp).  Code 0xFE rewrites a switch or limit of the control
// block, 0xFD a time, sum, depth or count of the calling thread's
// process-thread entry, 0xFF stops and restarts tracing, every other code
// calls an entry.
//
// The collector is created once per process, with keys from the pid, and
// removed at exit (and, through the sanitizer's death callback, on a
// finding).  After each input the control block is put back, the calls and
// services the input left open are closed and the queues are drained, so
// that an input finds the same state whatever ran before it.
#include <time.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "collector/service_table.h"
#include "context/mtr_cxt.h"
#include "core/gvar.h"
#include "fuzz/api_ops.h"
#include "fuzz/fuzz_session.h"
#include "varnix.h"

namespace {

using varnix::fuzz::Args;
using varnix::fuzz::ByteReader;

constexpr int kMaxOps = 64;
constexpr uint8_t kEntryCode = 0xFD;
constexpr uint8_t kRewriteCode = 0xFE;
constexpr uint8_t kRestartCode = 0xFF;
constexpr int kUnwindMax = 64;  // deeper than any input can nest
constexpr unsigned long kQueueBytes = 256 * 1024;

varnix::kit::Session* session = nullptr;
TRAN_LOGF_QUE_INFO saved_que_info;

void drain() { (void)session->collector().drain(); }

bool restart() {
    (void)TRAN_DONE();
    return TRAN_INIT() == 0;
}

// A restart costs the 10 ms that the teardown waits for calls in flight, a
// hundred ordinary inputs: the operation restarts at most once a second and
// does nothing otherwise, or restarts would take most of the run.
bool restart_now_and_then() {
    static timespec last{};
    timespec now{};
    if (clock_gettime(CLOCK_MONOTONIC, &now) != 0 || (last.tv_sec != 0 && now.tv_sec - last.tv_sec < 1)) return true;
    last = now;
    return restart();
}

// One switch or limit of the control block, as a collector might publish it.
void rewrite(ByteReader& in) {
    TRAN_LOGF_QUE_INFO& q = *session->collector().que_info();
    switch (in.byte() % 9) {
        case 0: q.log_flag_set = in.byte(); break;
        case 1: q.svc_filtering = in.byte(); break;
        case 2: q.call_trc_depth = in.number<int32_t>(); break;
        case 3: q.call_trc_limit = in.number<int64_t>(); break;
        case 4: q.dbio_trc_limit = in.number<int64_t>(); break;
        case 5: q.sql_trc_limit = in.number<int64_t>(); break;
        case 6: q.qcnt = static_cast<int8_t>(in.byte()); break;
        case 7: q.que_mask = in.number<uint32_t>(); break;
        default: q.magic_code = (in.byte() & 1) ? in.number<uint32_t>() : VARNIX_MAGIC_CODE; break;
    }
}

// A number of the calling thread's process-thread entry, as another process
// might write it while the thread is inside a service or a call.
void rewrite_entry(ByteReader& in) {
    varnix::MTR_CXT_VAR* cxt = nullptr;
    if (varnix::context_with_entry(-1, &cxt) != 0) return;
    PTRC_HASH& e = *cxt->ptrc;
    CALL_LVL& lvl = e.call_lvl[in.byte() % VARNIX_CALL_LVL_CNT];
    switch (in.byte() % 10) {
        case 0: lvl.start_tv.tv_sec = in.number<int64_t>(); break;
        case 1: lvl.start_tv.tv_usec = in.number<int64_t>(); break;
        case 2: lvl.elapsed_sum = in.number<int64_t>(); break;
        case 3: lvl.dbio_sum = in.number<int64_t>(); break;
        case 4: e.call_elapsed_sum = in.number<int64_t>(); break;
        case 5: e.call_trc_depth = in.number<int32_t>(); break;
        case 6: e.total_call_cnt = in.number<int32_t>(); break;
        case 7: e.svc_start_tv.tv_sec = in.number<int64_t>(); break;
        case 8: e.preset_start_tv = timeval{in.number<int64_t>(), in.number<int64_t>()}; break;
        default: e.svc_mark_time = in.number<int64_t>(); break;
    }
}

bool finishes(int32_t rc) {
    return rc == VARNIX_RC_CALL_DEPTH || rc == VARNIX_RC_SVC_DEPTH || rc == VARNIX_RC_NO_SERVICE ||
           rc == VARNIX_RC_NOT_INIT || rc == VARNIX_RC_SVC_TIMEOUT || rc == VARNIX_RC_PTRC_FULL ||
           rc == VARNIX_RC_NO_CONTEXT;
}

// Closes what the input left open on `tid`: its calls, then its services.
void unwind(int32_t tid) {
    for (int i = 0; i < kUnwindMax; ++i) {
        int32_t rc = TRAN_CALLINFO_F(tid, nullptr, 0, nullptr, 0, nullptr, 0, nullptr, 0, nullptr, 0, nullptr, 0,
                                     nullptr, 0, "unwind", -1, "unwind.c", -1, 1, 0, "unwind", -1, nullptr, 0);
        drain();
        if (finishes(rc)) break;
    }
    for (int i = 0; i < kUnwindMax; ++i) {
        int32_t rc = TRAN_END(tid, nullptr, 0, nullptr, 0, nullptr, 0, nullptr, 0, nullptr, 0, nullptr, 0, nullptr, 0,
                              nullptr, 0, nullptr, 0, nullptr, 0, nullptr, 0, nullptr, 0, nullptr, 0, nullptr, 0,
                              nullptr, 0, nullptr, 0, nullptr, 0, nullptr, 0, nullptr, 0, nullptr, 0, nullptr, 0,
                              nullptr, 0, nullptr, 0, nullptr, 0, nullptr, 0, nullptr, 0, nullptr, 0, nullptr, 0,
                              nullptr, 0);
        drain();
        if (finishes(rc)) break;
    }
}

void settle(const Args& args, bool init_failed, bool timed_out) {
    std::memcpy(session->collector().que_info(), &saved_que_info, sizeof saved_que_info);
    // A service time-out only sets the mark that the next initialization
    // clears; clearing it here spares the 10 ms of a restart.
    if (timed_out) varnix::gvar.svctimeout_mark.store(0);
    if (init_failed && !restart()) std::abort();  // every later input would test nothing
    for (int32_t tid = -1; tid < varnix::fuzz::kGivenTids; ++tid)
        if (args.used(tid)) unwind(tid);
    drain();
}

void list_services(SVC_HASH_TBL& svc) {
    // One listed service with tight limits, so that filtering and the service
    // table's own limits are reachable; SVC_TRANSFER stays unlisted.
    varnix::collector::ServiceListing listing;
    listing.svc_id = "SVC_ACCT_INQUIRY";
    listing.call_trc_depth = 3;
    listing.call_trc_limit = 1;
    listing.dbio_trc_limit = 1;
    listing.sql_trc_limit = 1;
    if (!varnix::collector::add_service(svc, listing)) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    session = &varnix::fuzz::start_fuzz_session("varnix-fuzz-api");
    // Room for the most one call can send at once (a DBIO finish with its
    // SQL texts), where permitted; otherwise such a call may see 105.
    (void)session->collector().raise_queue_bytes(kQueueBytes);
    list_services(*session->collector().svc());
    std::memcpy(&saved_que_info, session->collector().que_info(), sizeof saved_que_info);
    if (TRAN_INIT() != 0) std::abort();
    drain();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    ByteReader in(data, size);
    Args args(in);
    bool init_failed = false, timed_out = false;
    // VARNIX_FUZZ_TRACE=1 shows what each operation returned, to check a seed.
    static const bool trace = std::getenv("VARNIX_FUZZ_TRACE") != nullptr;
    for (int i = 0; i < kMaxOps && !in.empty(); ++i) {
        uint8_t code = in.byte();
        if (code == kRewriteCode) {
            rewrite(in);
        } else if (code == kEntryCode) {
            rewrite_entry(in);
        } else if (code == kRestartCode) {
            init_failed |= !restart_now_and_then();
        } else {
            const varnix::fuzz::ApiOp& op = varnix::fuzz::api_op(code);
            timed_out |= op.stops_tracing;
            int32_t rc = op.run(args);
            if (trace) std::fprintf(stderr, "op %u: %d\n", code, rc);
        }
        drain();
    }
    settle(args, init_failed, timed_out);
    return 0;
}
