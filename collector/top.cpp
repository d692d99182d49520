// `varnix-agent top`: the transactions in flight, from the process-thread
// table.  The table is read without its semaphore while the traced threads
// write their entries, so a line may mix two moments of a thread; every
// number read is range-checked before use.
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <string>
#include <string_view>

#include "collector/agent.h"
#include "collector/agent_ipc.h"
#include "core/clock.h"

namespace varnix::agent {
namespace {

constexpr size_t kSqlShown = 100;

// A fixed-width text of the table, cut at its NUL, trimmed, printable.
template <size_t N>
std::string shown(const char (&field)[N], size_t max = N) {
    std::string s(field, strnlen(field, std::min(N, max)));
    s.erase(s.find_last_not_of(' ') + 1);
    for (char& c : s)
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7F) c = ' ';
    return s;
}

double seconds_since(const timeval& tv, int64_t now_us) {
    return tv.tv_sec ? static_cast<double>(now_us - usec_of(tv)) / 1e6 : 0.0;
}

void show_calls(const PTRC_HASH& e, int64_t now_us) {
    const int levels = std::clamp<int>(e.trc_lvl, 0, VARNIX_CALL_LVL_CNT);
    for (int i = 0; i < levels; ++i) {
        const CALL_LVL& l = e.call_lvl[i];
        std::printf("           call %-2d %c  %-40s %8.3f s\n", i + 1, l.call_kind == 'B' ? 'B' : 'C',
                    shown(l.func_nm).c_str(), seconds_since(l.start_tv, now_us));
        const int slots = std::clamp(e.sql_rec_cnt, 0, VARNIX_SQL_SLOT_CNT);
        if (i + 1 == levels && l.call_kind == 'B' && slots > 0)
            std::printf("                    SQL: %s\n", shown(e.sql_slot[slots - 1].sql_text, kSqlShown).c_str());
    }
}

void show_entry(const PTRC_HASH& e, int64_t now_us) {
    const int depth = std::clamp<int>(e.service_depth, 1, VARNIX_SVC_DEPTH_MAX);
    std::string services;
    for (int i = 0; i < depth; ++i) services += (i ? " > " : "") + shown(e.svc_stack[i].svc_id);
    std::printf("%8d  %-15s %15llu  %5d  %c  %8.3f s  %-32s  %s\n", e.pid, shown(e.proc_nm, 16).c_str(),
                static_cast<unsigned long long>(e.tid), e.service_depth, e.svc_state > ' ' ? e.svc_state : '?',
                seconds_since(e.svc_start_tv, now_us), shown(e.svc_stack[depth - 1].gid).c_str(), services.c_str());
    show_calls(e, now_us);
}

void show_table(const PTRC_HASH_TBL& t) {
    const int64_t now_us = usec_of(clock_now());
    const std::time_t now = std::time(nullptr);
    std::tm tm{};
    localtime_r(&now, &tm);
    char stamp[32];
    std::strftime(stamp, sizeof stamp, "%Y-%m-%d %H:%M:%S", &tm);
    const uint32_t used = std::min<uint32_t>(t.used_stk.cnt, VARNIX_TBL_ENTRIES);
    int in_flight = 0;
    for (uint32_t i = 0; i < used; ++i) {
        const uint32_t n = t.used_stk.idx[i];
        in_flight += n < VARNIX_TBL_ENTRIES && t.entry[n].ptrc_state == VARNIX_PTRC_REGISTERED &&
                     t.entry[n].service_depth > 0;
    }
    std::printf("varnix-agent top  %s  threads registered %u, in a service %d\n", stamp, used, in_flight);
    std::printf("%8s  %-15s %15s  %5s  %s  %10s  %-32s  %s\n", "PID", "PROCESS", "TID", "DEPTH", "S", "RUNNING",
                "GID", "SERVICE");
    for (uint32_t i = 0; i < used; ++i) {
        const uint32_t n = t.used_stk.idx[i];
        if (n >= VARNIX_TBL_ENTRIES) continue;
        const PTRC_HASH& e = t.entry[n];
        if (e.ptrc_state == VARNIX_PTRC_REGISTERED && e.service_depth > 0) show_entry(e, now_us);
    }
    std::fflush(stdout);
}

}  // namespace

int top_command(const Options& o) {
    Attached a;
    if (!a.open(o.cfg.c_str(), Attached::kPtrc, false)) return 1;
    if (o.once) {
        show_table(*a.ptrc);
        return 0;
    }
    // A terminal's screen is cleared before each view; a file or a pipe
    // gets the views one after another, a blank line between them.
    const bool terminal = isatty(STDOUT_FILENO) == 1;
    for (bool first = true;; first = false) {  // until interrupted
        if (terminal)
            std::printf("\033[H\033[2J");
        else if (!first)
            std::printf("\n");
        show_table(*a.ptrc);
        sleep(1);
    }
}

}  // namespace varnix::agent
