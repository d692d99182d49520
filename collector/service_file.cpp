#include "collector/service_file.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
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
const char* parse_line(char* line, kit::ServiceListing& s) {
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

}  // namespace

bool read_service_file(const std::string& path, std::vector<kit::ServiceListing>& out) {
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
        kit::ServiceListing s;
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

void load_services(SVC_HASH_TBL& tbl, const std::vector<kit::ServiceListing>& listings) {
    init_svc_hash_tbl(tbl);
    for (const kit::ServiceListing& s : listings) kit::add_service(tbl, s);
}

}  // namespace varnix::agent
