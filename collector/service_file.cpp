#include "collector/service_file.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <algorithm>
#include <map>
#include <set>

#include "context/tables.h"

namespace varnix::agent {
namespace {

constexpr size_t kSvcIdMax = 16;
constexpr char kFlagLetters[] = "SEVBCIQ";

bool to_number(const char* t, int64_t& v) {
    char* end = nullptr;
    errno = 0;
    const long long n = std::strtoll(t, &end, 10);
    if (end == t || *end != '\0' || errno != 0 || n < 0) return false;
    v = n;
    return true;
}

// The flag byte of a column of letters; false for a letter that is not one.
bool to_flags(const char* t, uint8_t& flags) {
    if (std::strcmp(t, "-") == 0) {
        flags = 0;
        return true;
    }
    for (const char* p = t; *p; ++p)
        if (!std::strchr(kFlagLetters, *p)) return false;
    flags = get_log_flag_set(t);
    return true;
}

// A listing from the six columns of a line, or the reason it is none.
const char* parse_line(char* line, collector::ServiceListing& s) {
    char* col[7] = {};
    int n = 0;
    char* save = nullptr;
    for (char* t = strtok_r(line, " \t\r\n", &save); t && n < 7; t = strtok_r(nullptr, " \t\r\n", &save)) col[n++] = t;
    if (n != 6) return "six columns expected: service id, flags, call_trc_depth, call_trc_limit, dbio_trc_limit, "
                       "sql_trc_limit";
    if (std::strlen(col[0]) > kSvcIdMax) return "service id longer than 16 characters";
    s.svc_id = col[0];
    if (!to_flags(col[1], s.flags)) return "flags are letters of SEVBCIQ, or -";
    int64_t depth = 0;
    if (!to_number(col[2], depth) || depth > 127) return "call_trc_depth is not a number of 0..127";
    s.call_trc_depth = static_cast<int32_t>(depth);
    if (!to_number(col[3], s.call_trc_limit) || !to_number(col[4], s.dbio_trc_limit) ||
        !to_number(col[5], s.sql_trc_limit))
        return "limits are microseconds (numbers of 0 or more)";
    return nullptr;
}

std::string padded_id(const std::string& id) {
    std::string p(kSvcIdMax, ' ');
    p.replace(0, std::min(id.size(), kSvcIdMax), id, 0, kSvcIdMax);
    return p;
}

void update_entry(SVC_HASH& e, const collector::ServiceListing& s) {
    e.svc_flag_set = s.flags;
    e.call_trc_depth = s.call_trc_depth;
    e.call_trc_limit = s.call_trc_limit;
    e.dbio_trc_limit = s.dbio_trc_limit;
    e.sql_trc_limit = s.sql_trc_limit;
}

bool is_entry_no(int32_t n) { return n >= 0 && n < VARNIX_TBL_ENTRIES; }

// Unlinks entry n and frees it.  Its own next link stays, so that a process
// reading the chain at it walks on; its id is cleared, so that no lookup
// matches it any more.
void drop_entry(SVC_HASH_TBL& tbl, uint32_t n) {
    SVC_HASH& e = tbl.entry[n];
    const int32_t prev = e.prev, next = is_entry_no(e.next) ? e.next : -1;
    if (is_entry_no(prev))
        __atomic_store_n(&tbl.entry[prev].next, next, __ATOMIC_RELEASE);
    else if (e.hidx < VARNIX_HASH_BUCKETS && tbl.svc_hash_idx[e.hidx] == static_cast<int32_t>(n))
        __atomic_store_n(&tbl.svc_hash_idx[e.hidx], next, __ATOMIC_RELEASE);
    if (next >= 0) tbl.entry[next].prev = prev;
    std::memset(e.svc_id, 0, sizeof e.svc_id);
    svc_hash_push(&tbl.svc_free_stk, n);
    if (tbl.svc_cnt > 0) --tbl.svc_cnt;
}

}  // namespace

bool read_service_file(const std::string& path, std::vector<collector::ServiceListing>& out) {
    std::FILE* fp = std::fopen(path.c_str(), "r");
    if (!fp) {
        std::fprintf(stderr, "varnix-agent: %s: %s\n", path.c_str(), std::strerror(errno));
        return false;
    }
    std::set<std::string> ids;
    char line[1024];
    bool ok = true;
    for (int no = 1; ok && std::fgets(line, sizeof line, fp); ++no) {
        const char* p = line + std::strspn(line, " \t");
        if (*p == '#' || *p == '\n' || *p == '\r' || *p == '\0') continue;
        collector::ServiceListing s;
        const char* why = parse_line(line, s);
        if (!why && !ids.insert(s.svc_id).second) why = "service listed twice";
        if (!why && out.size() == VARNIX_TBL_ENTRIES) why = "more services than the table holds";
        if (why) {
            std::fprintf(stderr, "varnix-agent: %s:%d: %s\n", path.c_str(), no, why);
            ok = false;
        }
        out.push_back(s);
    }
    std::fclose(fp);
    return ok;
}

void load_services(SVC_HASH_TBL& tbl, const std::vector<collector::ServiceListing>& listings) {
    HASH_IDX_STK& used = tbl.svc_used_stk;
    if (used.cnt > VARNIX_TBL_ENTRIES || tbl.svc_free_stk.cnt > VARNIX_TBL_ENTRIES) {
        init_svc_hash_tbl(tbl);  // nothing in it can be trusted: built afresh
        for (const collector::ServiceListing& s : listings) collector::add_service(tbl, s);
        return;
    }
    std::map<std::string, size_t> wanted;  // padded id -> listing
    for (size_t i = 0; i < listings.size(); ++i) wanted.emplace(padded_id(listings[i].svc_id), i);
    std::vector<bool> present(listings.size()), dropped(VARNIX_TBL_ENTRIES);
    // Listed before and after: updated where it stands.
    for (uint32_t i = 0; i < used.cnt; ++i) {
        const uint32_t n = used.idx[i];
        if (n >= VARNIX_TBL_ENTRIES) continue;
        SVC_HASH& e = tbl.entry[n];
        const auto it = wanted.find(std::string(e.svc_id, sizeof e.svc_id));
        if (it == wanted.end() || present[it->second]) {
            dropped[n] = true;  // no longer listed, or a second entry of one id
            continue;
        }
        present[it->second] = true;
        update_entry(e, listings[it->second]);
    }
    // New ones are complete before they are linked.
    for (size_t i = 0; i < listings.size(); ++i)
        if (!present[i]) collector::add_service(tbl, listings[i]);
    // From the top down: the number moved into a freed position has been
    // looked at already.
    for (uint32_t i = used.cnt; i-- > 0;) {
        const uint32_t n = used.idx[i];
        if (n >= VARNIX_TBL_ENTRIES || !dropped[n]) continue;
        drop_entry(tbl, n);
        used.idx[i] = used.idx[used.cnt - 1];
        --used.cnt;
    }
}

}  // namespace varnix::agent
