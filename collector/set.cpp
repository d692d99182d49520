// `varnix-agent set NAME=VALUE...` changes the switches of the running
// agent's control block, which every traced process reads on every call, and
// loads service table files; `varnix-agent snapshot TRCD` arms a snapshot in
// every registered thread.  Every word is checked before anything changes.
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "collector/agent.h"
#include "collector/agent_ipc.h"
#include "collector/service_file.h"
#include "core/gvar.h"

namespace varnix::agent {
namespace {

struct Limit {
    const char* name;
    int64_t TRAN_LOGF_QUE_INFO::*field;
};
constexpr Limit kLimits[] = {{"call_trc_limit", &TRAN_LOGF_QUE_INFO::call_trc_limit},
                             {"dbio_trc_limit", &TRAN_LOGF_QUE_INFO::dbio_trc_limit},
                             {"sql_trc_limit", &TRAN_LOGF_QUE_INFO::sql_trc_limit}};

bool to_number(const std::string& t, long long lo, long long hi, long long& v) {
    char* end = nullptr;
    errno = 0;
    v = std::strtoll(t.c_str(), &end, 10);
    return end != t.c_str() && *end == '\0' && errno == 0 && v >= lo && v <= hi;
}

// What one word changes, applied to `q` (a copy while checking).
// The reason a word is refused, or null.
const char* apply(TRAN_LOGF_QUE_INFO& q, const std::string& name, const std::string& value,
                  std::vector<collector::ServiceListing>* services) {
    long long v = 0;
    if (name == "log_flag_set") {
        if (value != "-" && value.find_first_not_of(kFlagLetters) != std::string::npos)
            return "letters of SEVBCIXQ, or -";
        q.log_flag_set = value == "-" ? 0 : get_log_flag_set(value.c_str());
    } else if (name == "capture") {
        if (value != "on" && value != "off") return "on or off";
        q.tong_log_flag = value == "on" ? '1' : '0';
    } else if (name == "call_trc_depth") {
        if (!to_number(value, 0, 127, v)) return "a number of 0..127";
        q.call_trc_depth = static_cast<int32_t>(v);
    } else if (name == "svc_filtering") {
        if (!to_number(value, 0, 2, v)) return "0, 1 or 2";
        q.svc_filtering = static_cast<uint8_t>(v);
    } else if (name == "fst_err_rc_set") {
        if (apply_fst_err_rc(q.fst_err_rc_set, value.c_str()) != 0) return "CODE,VERDICT with a verdict of 0, 1 or 2";
    } else if (name == "services") {
        if (services && !read_service_file(value, *services)) return "see the line above";
    } else {
        for (const Limit& l : kLimits) {
            if (name != l.name) continue;
            if (!to_number(value, 0, INT64_MAX, v)) return "microseconds, 0 or more";
            q.*l.field = v;
            return nullptr;
        }
        return "unknown switch (log_flag_set, capture, call_trc_depth, call_trc_limit, dbio_trc_limit, "
               "sql_trc_limit, svc_filtering, fst_err_rc_set, services)";
    }
    return nullptr;
}

void show(const TRAN_LOGF_QUE_INFO& q, const SVC_HASH_TBL* svc) {
    std::string letters;
    for (const char* p = kFlagLetters; *p; ++p) {
        const char one[2] = {*p, 0};
        if (q.log_flag_set & get_log_flag_set(one)) letters += *p;
    }
    std::printf("log_flag_set=%s capture=%s call_trc_depth=%d call_trc_limit=%lld dbio_trc_limit=%lld "
                "sql_trc_limit=%lld svc_filtering=%d",
                letters.empty() ? "-" : letters.c_str(), q.tong_log_flag == '1' ? "on" : "off", q.call_trc_depth,
                static_cast<long long>(q.call_trc_limit), static_cast<long long>(q.dbio_trc_limit),
                static_cast<long long>(q.sql_trc_limit), q.svc_filtering);
    if (svc) std::printf(" services=%u", svc->svc_cnt);
    std::printf("\n");
}

bool split(const std::string& word, std::string& name, std::string& value) {
    const size_t eq = word.find('=');
    if (eq == std::string::npos || eq == 0) return false;
    name = word.substr(0, eq);
    value = word.substr(eq + 1);
    return true;
}

}  // namespace

int set_command(const Options& o) {
    Attached a;
    if (!a.open(o.cfg.c_str(), Attached::kQueInfo | Attached::kSvc)) return 1;
    // Checked on a copy first, so that a bad word changes nothing.
    TRAN_LOGF_QUE_INFO copy = *a.que_info;
    std::vector<collector::ServiceListing> services;
    bool load = false;
    for (const std::string& word : o.args) {
        std::string name, value;
        const char* why = split(word, name, value) ? apply(copy, name, value, &services) : "NAME=VALUE expected";
        if (why) {
            std::fprintf(stderr, "varnix-agent: set %s: %s; nothing was changed\n", word.c_str(), why);
            return 1;
        }
        load = load || name == "services";
    }
    for (const std::string& word : o.args) {
        std::string name, value;
        split(word, name, value);
        if (name != "services") apply(*a.que_info, name, value, nullptr);
    }
    if (load) {
        SemHold hold(a.svc_sem);
        if (!hold.owns()) return 1;
        load_services(*a.svc, services);
    }
    show(*a.que_info, a.svc);
    return 0;
}

int snapshot_command(const Options& o) {
    constexpr size_t kTrCdMax = sizeof(PTRC_HASH::snapshot_tr_cd) - 1;
    if (o.args.size() != 1 || o.args[0].empty() || o.args[0].size() > kTrCdMax) {
        std::fprintf(stderr, "varnix-agent: snapshot takes one trade code of 1 to %zu characters\n", kTrCdMax);
        return 1;
    }
    Attached a;
    if (!a.open(o.cfg.c_str(), Attached::kPtrc)) return 1;
    SemHold hold(a.ptrc_sem);
    if (!hold.owns()) return 1;
    PTRC_HASH_TBL& t = *a.ptrc;
    int armed = 0;
    for (uint32_t i = 0; i < t.used_stk.cnt && i < VARNIX_TBL_ENTRIES; ++i) {
        const uint32_t n = t.used_stk.idx[i];
        if (n >= VARNIX_TBL_ENTRIES) continue;
        PTRC_HASH& e = t.entry[n];
        if (e.ptrc_state != VARNIX_PTRC_REGISTERED || __atomic_load_n(&e.snapshot_state, __ATOMIC_ACQUIRE) != 0)
            continue;
        std::memset(e.snapshot_tr_cd, 0, sizeof e.snapshot_tr_cd);
        std::memcpy(e.snapshot_tr_cd, o.args[0].data(), o.args[0].size());
        __atomic_store_n(&e.snapshot_state, 1, __ATOMIC_RELEASE);  // the code is in place first
        ++armed;
    }
    std::printf("snapshot %s armed in %d thread(s)\n", o.args[0].c_str(), armed);
    return 0;
}

}  // namespace varnix::agent
