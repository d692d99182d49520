#include "collector/ipc_access.h"

#include <grp.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "collector/agent_config.h"

namespace varnix::agent {
namespace {

constexpr mode_t kOwnerReadWrite = 0600;

// An octal mode of at most 0777 that lets the agent read and write its own
// objects; the complaint otherwise.
const char* parse_mode(const std::string& text, mode_t& mode) {
    char* end = nullptr;
    const unsigned long v = std::strtoul(text.c_str(), &end, 8);
    if (text.empty() || *end != '\0' || text.find_first_not_of("01234567") != std::string::npos || v > 0777)
        return "is not an octal mode of at most 0777";
    if ((v & kOwnerReadWrite) != kOwnerReadWrite) return "leaves the agent without read and write (0600)";
    mode = static_cast<mode_t>(v);
    return nullptr;
}

// The group's id; false when no group has that name (errno 0) or the group
// database cannot be read (errno set).
bool group_named(const std::string& name, gid_t& gid) {
    std::vector<char> buf(1024);
    group g{};
    group* found = nullptr;
    int rc;
    while ((rc = getgrnam_r(name.c_str(), &g, buf.data(), buf.size(), &found)) == ERANGE && buf.size() < (1u << 20))
        buf.resize(buf.size() * 2);
    errno = rc;
    if (!found) return false;
    gid = g.gr_gid;
    return true;
}

// A group number, or a name that the group database knows; the complaint
// otherwise.
std::string parse_group(const std::string& text, gid_t& gid) {
    if (text.find_first_not_of("0123456789") == std::string::npos) {
        errno = 0;
        const unsigned long v = std::strtoul(text.c_str(), nullptr, 10);
        if (errno != 0 || v >= static_cast<gid_t>(-1)) return "is not a group number";
        gid = static_cast<gid_t>(v);
        return "";
    }
    if (group_named(text, gid)) return "";
    return errno == 0 ? "is no group of this host" : std::string("cannot be looked up: ") + std::strerror(errno);
}

bool complain(const char* cfg, const char* key, const std::string& value, const std::string& why) {
    std::fprintf(stderr, "varnix-agent: %s: key %s (section VARNIX_AGENT): %s %s\n", cfg, key, value.c_str(),
                 why.c_str());
    return false;
}

}  // namespace

bool ipc_access(const char* cfg, collector::Access& out) {
    out = collector::Access{};
    const std::string mode = optional_token(cfg, "VARNIX_AGENT", "IPC_MODE");
    if (const char* why = mode.empty() ? nullptr : parse_mode(mode, out.mode))
        return complain(cfg, "IPC_MODE", mode, why);
    const std::string group = optional_token(cfg, "VARNIX_AGENT", "IPC_GROUP");
    if (!group.empty()) {
        const std::string why = parse_group(group, out.gid);
        return why.empty() || complain(cfg, "IPC_GROUP", group, why);
    }
    if (group_named(kDefaultIpcGroup, out.gid)) return true;
    const std::string why = errno == 0 ? "no group " + std::string(kDefaultIpcGroup) + " on this host"
                                       : "the group " + std::string(kDefaultIpcGroup) + " cannot be looked up: " +
                                             std::strerror(errno);
    out.gid = getegid();
    std::fprintf(stderr,
                 "varnix-agent: warning: %s: the IPC objects get the agent's group %u; IPC_GROUP in section "
                 "VARNIX_AGENT names the group of the traced servers' users\n",
                 why.c_str(), static_cast<unsigned>(out.gid));
    return true;
}

}  // namespace varnix::agent
