// find_reclaimable runs without the PTRC_HASH_TBL semaphore while traced
// processes register threads: it reads the used stack (a registration only
// appends to it) and each listed entry's ptrc_state, pid and svc_mark_time,
// range-checks every number and decides nothing for good.  reclaim_entries
// runs under the semaphore, under which alone chains, stacks and used_cnt
// change; it trusts no link it has not checked.  Entries of live threads are
// written by their own thread without the semaphore; of those, only
// ptrc_state, pid and svc_mark_time are read here.
#include "collector/reclaim.h"

#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <unordered_map>
#include <utility>

#include "context/ptrc_hash_stk.h"

namespace varnix::agent {
namespace {

constexpr int32_t kChainEnd = -1;
constexpr int64_t kUnknown = -1;
constexpr int64_t kNoProcess = -2;
// Start times from /proc are whole seconds computed from the boot time; a
// process is taken for a newer one only when it started clearly later.
constexpr int64_t kClockSlackSec = 2;
constexpr int kStartTimeField = 22;  // of /proc/PID/stat; the name is the 2nd

bool is_entry_no(int64_t n) { return n >= 0 && n < VARNIX_TBL_ENTRIES; }

template <typename T>
T load(const T& v) {
    return __atomic_load_n(&v, __ATOMIC_ACQUIRE);
}

// The wall-clock second the host booted, or kUnknown.
int64_t boot_time() {
    std::FILE* fp = std::fopen("/proc/stat", "r");
    if (!fp) return kUnknown;
    char line[256];
    long long bt = kUnknown;
    while (std::fgets(line, sizeof line, fp))
        if (std::sscanf(line, "btime %lld", &bt) == 1) break;
    std::fclose(fp);
    return bt;
}

// The wall-clock second process pid started, kNoProcess when there is none,
// kUnknown when /proc does not tell.
int64_t start_time(int32_t pid, int64_t boot, long ticks_per_sec) {
    if (pid <= 0 || (kill(pid, 0) != 0 && errno != EPERM)) return kNoProcess;
    if (boot < 0 || ticks_per_sec <= 0) return kUnknown;
    char path[32];
    std::snprintf(path, sizeof path, "/proc/%d/stat", pid);
    std::FILE* fp = std::fopen(path, "r");
    if (!fp) return kUnknown;
    char buf[1024];
    const size_t len = std::fread(buf, 1, sizeof buf - 1, fp);
    std::fclose(fp);
    buf[len] = '\0';
    char* p = std::strrchr(buf, ')');  // the name may hold spaces and parentheses
    if (!p) return kUnknown;
    char* save = nullptr;
    char* t = strtok_r(p + 1, " ", &save);
    for (int field = 3; t && field < kStartTimeField; ++field) t = strtok_r(nullptr, " ", &save);
    if (!t) return kUnknown;
    return boot + static_cast<int64_t>(std::strtoull(t, nullptr, 10) / static_cast<unsigned long>(ticks_per_sec));
}

// Walks entry n's bucket chain from its head to n and unlinks it; the reason
// when the chain does not lead there or n's own links are not sound.
const char* unlink_checked(PTRC_HASH_TBL& tbl, uint32_t n) {
    PTRC_HASH& e = tbl.entry[n];
    if (e.pidx != n) return "its pidx is not its number";
    if (e.hidx >= VARNIX_HASH_BUCKETS) return "its bucket is out of range";
    const int32_t next = e.next;
    if (next != kChainEnd && !is_entry_no(next)) return "its next link is out of range";
    int32_t pred = kChainEnd;
    int32_t at = tbl.hash_idx[e.hidx];
    for (int steps = 0; at != static_cast<int32_t>(n); ++steps) {
        if (!is_entry_no(at) || steps == VARNIX_TBL_ENTRIES) return "it is not on its bucket's chain";
        pred = at;
        at = tbl.entry[at].next;
    }
    if (pred == kChainEnd)
        tbl.hash_idx[e.hidx] = next;
    else
        tbl.entry[pred].next = next;
    if (next != kChainEnd) tbl.entry[next].prev = pred;
    return nullptr;
}

// Registration rewrites everything past the links (get_ptrc_hash's
// init_entry) and relinks the entry, so only what tells a taken entry from a
// free one is reset here.
void mark_free(PTRC_HASH& e) {
    std::memset(e.key_pid, 0, sizeof e.key_pid);
    std::memset(e.key_tid, 0, sizeof e.key_tid);
    std::memset(e.key_idx, 0, sizeof e.key_idx);
    e.pid = 0;
    e.tid = 0;
    e.reg_flag = 0;
    e.prev = kChainEnd;
    e.next = kChainEnd;
    __atomic_store_n(&e.ptrc_state, uint8_t{0}, __ATOMIC_RELEASE);
}

}  // namespace

std::vector<Candidate> find_reclaimable(const PTRC_HASH_TBL& tbl) {
    std::vector<Candidate> found;
    std::unordered_map<int32_t, int64_t> started;  // by pid, for the threads of one process
    const int64_t boot = boot_time();
    const long ticks_per_sec = sysconf(_SC_CLK_TCK);
    const uint32_t cnt = std::min<uint32_t>(load(tbl.used_stk.cnt), VARNIX_TBL_ENTRIES);
    for (uint32_t i = 0; i < cnt; ++i) {
        const uint32_t n = load(tbl.used_stk.idx[i]);
        if (!is_entry_no(n)) continue;
        const PTRC_HASH& e = tbl.entry[n];
        const uint8_t state = load(e.ptrc_state);
        const int32_t pid = load(e.pid);
        if (state == VARNIX_PTRC_RELEASED) {
            found.push_back({n, pid, true});
            continue;
        }
        if (state == 0) continue;
        auto [it, added] = started.try_emplace(pid, kUnknown);
        if (added) it->second = start_time(pid, boot, ticks_per_sec);
        const bool reused = it->second >= 0 && it->second > load(e.svc_mark_time) + kClockSlackSec;
        if (it->second == kNoProcess || reused) found.push_back({n, pid, false});
    }
    return found;
}

Reclaimed reclaim_entries(PTRC_HASH_TBL& tbl, std::span<const Candidate> candidates) {
    Reclaimed r;
    HASH_IDX_STK& used = tbl.used_stk;
    if (candidates.empty()) return r;
    if (used.cnt > VARNIX_TBL_ENTRIES) {
        r.skipped.push_back({used.cnt, "the used stack counts more entries than the table has"});
        return r;
    }
    std::vector<uint8_t> listed(VARNIX_TBL_ENTRIES, 0);
    for (uint32_t i = 0; i < used.cnt; ++i)
        if (is_entry_no(used.idx[i]) && listed[used.idx[i]] < 2) ++listed[used.idx[i]];
    std::vector<const Candidate*> wanted(VARNIX_TBL_ENTRIES, nullptr);
    for (const Candidate& c : candidates)
        if (is_entry_no(c.n)) wanted[c.n] = &c;
    // From the top down: the number moved into a freed position has been
    // looked at already.
    for (uint32_t i = used.cnt; i-- > 0;) {
        const uint32_t n = used.idx[i];
        if (!is_entry_no(n) || !wanted[n]) continue;
        const Candidate& c = *std::exchange(wanted[n], nullptr);
        PTRC_HASH& e = tbl.entry[n];
        const uint8_t state = load(e.ptrc_state);
        if (state == 0) {
            r.skipped.push_back({n, "it is on the used stack but free"});
            continue;
        }
        if (c.released ? state != VARNIX_PTRC_RELEASED : e.pid != c.pid) continue;  // changed: next pass
        const char* why = nullptr;
        if (listed[n] > 1)
            why = "it is on the used stack twice";
        else if (tbl.free_stk.cnt >= VARNIX_TBL_ENTRIES)
            why = "the free stack is full";
        else
            why = unlink_checked(tbl, n);
        if (why) {
            r.skipped.push_back({n, why});
            continue;
        }
        used.idx[i] = used.idx[used.cnt - 1];
        --used.cnt;
        mark_free(e);
        if (ptrc_hash_push(&tbl.free_stk, n) < 0) {
            r.skipped.push_back({n, "the free stack refused it; the entry is lost until the table is rebuilt"});
            continue;
        }
        ++(c.released ? r.released : r.orphaned);
    }
    if (r.released + r.orphaned > 0) tbl.used_cnt = used.cnt;
    return r;
}

}  // namespace varnix::agent
