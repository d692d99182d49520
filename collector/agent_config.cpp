#include "collector/agent_config.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "core/readcfg.h"

namespace varnix::agent {
namespace {

enum class Kind {
    Text,    // present
    Number,  // a base-10 number
    Count,   // a number of queues, 1..16
    IpcKey,  // a number other than 0 (0 is IPC_PRIVATE: a new object each time)
};

struct KeySpec {
    const char* section;
    const char* key;
    int token;
    Kind kind;
};

constexpr KeySpec kKeys[] = {
    {"COMMON", "LOG_HOME", 1, Kind::Text},
    {"COMMON", "TONG_LOG_HOME", 1, Kind::Text},
    {"TRAN_LOGF", "LOG_INTERFACE", 1, Kind::Text},
    {"TRAN_LOGF", "TR_SECTION", 1, Kind::Text},
    {"TRAN_LOGF", "QUE_CNT", 1, Kind::Count},
    {"TRAN_LOGF", "MAX_QUE_CNT", 1, Kind::Count},
    {"TRAN_LOGF", "TRAN_LOG_FLAG_SET", 1, Kind::Text},
    {"TRAN_LOGF", "SVC_FILTERING", 1, Kind::Number},
    {"TRAN_LOGF", "CALL_TRC_DEPTH", 1, Kind::Number},
    {"TRAN_LOGF", "CALL_TRC_LIMIT", 1, Kind::Number},
    {"TRAN_LOGF", "DBIO_TRC_LIMIT", 1, Kind::Number},
    {"TRAN_LOGF", "SQL_TRC_LIMIT", 1, Kind::Number},
    {"TRAN_LOGF", "IDLE_THREAD_RELEASE", 1, Kind::Number},
    {"TRAN_LOGF", "IDLE_THREAD_RELEASE", 2, Kind::Number},
    {"TRAN_LOGF", "INFINITE_LOOP_BASE_CNT", 1, Kind::Number},
    {"TRAN_LOGF", "WRITE_QUE_IDX_GID_RNG", 1, Kind::Number},
    {"TRAN_LOGF", "WRITE_QUE_IDX_GID_RNG", 2, Kind::Number},
    {"IPC_SHARED_MEMORY", "TRAN_LOGF_QUE_INFO_SHMKEY", 1, Kind::IpcKey},
    {"IPC_SHARED_MEMORY", "SVC_HASH_TBL_SHMKEY", 1, Kind::IpcKey},
    {"IPC_SHARED_MEMORY", "PTRC_HASH_TBL_SHMKEY", 1, Kind::IpcKey},
    {"IPC_SEMAPHORE", "SVC_HASH_TBL_SEMKEY", 1, Kind::IpcKey},
    {"IPC_SEMAPHORE", "PTRC_HASH_TBL_SEMKEY", 1, Kind::IpcKey},
    {"IPC_MESSAGE_QUE", "TRAN_LOGF_MSGQKEY", 1, Kind::IpcKey},
    {"DATA_SIGNATURE", "DBIO_FUNC", 1, Kind::Number},
    {"DATA_SIGNATURE", "DBIO_FUNC", 2, Kind::Text},
    {"SERVICE_HASH", "DEFAULT_TIMEOUT_SEC", 1, Kind::Number},
};

// Keys that may be left out: the agent's own, and the error-code rules.
constexpr KeySpec kOptional[] = {
    {"TRAN_LOGF", "FST_ERR_RC_SET", 1, Kind::Text},
    {"VARNIX_AGENT", "OTLP_URL", 1, Kind::Text},
    {"VARNIX_AGENT", "IPC_MODE", 1, Kind::Text},
    {"VARNIX_AGENT", "IPC_GROUP", 1, Kind::Text},
};

bool is_known(std::string_view section, std::string_view key) {
    auto named = [&](const KeySpec& k) { return section == k.section && key == k.key; };
    return std::any_of(std::begin(kKeys), std::end(kKeys), named) ||
           std::any_of(std::begin(kOptional), std::end(kOptional), named);
}

std::string_view trimmed(std::string_view s) {
    const size_t from = s.find_first_not_of(" \t\r\n");
    if (from == std::string_view::npos) return {};
    return s.substr(from, s.find_last_not_of(" \t\r\n") - from + 1);
}

// Names every key line that is not a key of kKeys or kOptional in its
// section, as the reader sees sections and keys; false when there is one.
bool only_known_keys(const char* cfg) {
    std::FILE* fp = std::fopen(cfg, "r");
    if (!fp) return true;  // check_config said it
    char line[4096];
    std::string section;
    bool ok = true;
    for (int no = 1; std::fgets(line, sizeof line, fp); ++no) {
        const std::string_view l(line);
        if (l[0] == '[') {
            section = trimmed(l.substr(1, l.find(']') - 1));
            continue;
        }
        const std::string_view word = trimmed(l).substr(0, trimmed(l).find_first_of(" \t="));
        if (l[0] == '#' || word.empty() || is_known(section, word)) continue;
        std::fprintf(stderr, "varnix-agent: %s:%d: unknown key %.*s in section %s\n", cfg, no,
                     static_cast<int>(word.size()), word.data(), section.empty() ? "(none)" : section.c_str());
        ok = false;
    }
    std::fclose(fp);
    return ok;
}

bool read_number(const char* cfg, const char* section, const char* key, int token, long& value, bool& present) {
    char t[kCfgTokenMax + 1];
    present = get_nth_token_in_file_section(cfg, section, key, token, t) == 1;
    if (!present) return false;
    char* end = nullptr;
    errno = 0;
    value = std::strtol(t, &end, 10);
    return end != t && *end == '\0' && errno == 0;
}

long number(const char* cfg, const char* section, const char* key) {
    long v = 0;
    bool present = false;
    read_number(cfg, section, key, 1, v, present);
    return v;
}

// The complaint about one key, or null when it is sound.
const char* complaint(const char* cfg, const KeySpec& k) {
    long v = 0;
    bool present = false;
    const bool numeric = read_number(cfg, k.section, k.key, k.token, v, present);
    if (!present) return "is missing";
    switch (k.kind) {
        case Kind::Text: return nullptr;
        case Kind::Number: return numeric ? nullptr : "is not a number";
        case Kind::Count:
            if (!numeric) return "is not a number";
            if (v == 0) return "is 0";
            return v < 0 || v > VARNIX_MAX_QUE_CNT ? "is outside 1..16" : nullptr;
        case Kind::IpcKey:
            if (!numeric) return "is not a number";
            return v == 0 ? "is 0" : nullptr;
    }
    return nullptr;
}

}  // namespace

bool check_config(const char* cfg) {
    if (std::FILE* fp = std::fopen(cfg, "r"))
        std::fclose(fp);
    else {
        std::fprintf(stderr, "varnix-agent: cannot read the configuration %s: %s\n", cfg, std::strerror(errno));
        return false;
    }
    for (const KeySpec& k : kKeys) {
        if (const char* why = complaint(cfg, k)) {
            std::fprintf(stderr, "varnix-agent: %s: key %s (section %s, token %d) %s\n", cfg, k.key, k.section,
                         k.token, why);
            return false;
        }
    }
    if (number(cfg, "TRAN_LOGF", "QUE_CNT") > number(cfg, "TRAN_LOGF", "MAX_QUE_CNT")) {
        std::fprintf(stderr, "varnix-agent: %s: key QUE_CNT (section TRAN_LOGF) exceeds MAX_QUE_CNT\n", cfg);
        return false;
    }
    return true;
}

bool check_every_key(const char* cfg) {
    bool ok = only_known_keys(cfg);
    char letters[kCfgTokenMax + 1];
    std::string unknown;
    if (get_nth_token_in_file_section(cfg, "TRAN_LOGF", "TRAN_LOG_FLAG_SET", 1, letters) == 1 &&
        std::strcmp(letters, "-") != 0)
        for (const char* p = letters; *p; ++p)
            if (!std::strchr(kFlagLetters, *p) && unknown.find(*p) == std::string::npos) unknown += *p;
    if (!unknown.empty()) {
        std::fprintf(stderr,
                     "varnix-agent: %s: key TRAN_LOG_FLAG_SET (section TRAN_LOGF): unknown record classes %s (letters "
                     "of %s, or -)\n",
                     cfg, unknown.c_str(), kFlagLetters);
        ok = false;
    }
    return ok;
}

ConfigKeys config_keys(const char* cfg) {
    ConfigKeys c;
    c.keys.que_info = static_cast<key_t>(number(cfg, "IPC_SHARED_MEMORY", "TRAN_LOGF_QUE_INFO_SHMKEY"));
    c.keys.svc_shm = static_cast<key_t>(number(cfg, "IPC_SHARED_MEMORY", "SVC_HASH_TBL_SHMKEY"));
    c.keys.ptrc_shm = static_cast<key_t>(number(cfg, "IPC_SHARED_MEMORY", "PTRC_HASH_TBL_SHMKEY"));
    c.keys.svc_sem = static_cast<key_t>(number(cfg, "IPC_SEMAPHORE", "SVC_HASH_TBL_SEMKEY"));
    c.keys.ptrc_sem = static_cast<key_t>(number(cfg, "IPC_SEMAPHORE", "PTRC_HASH_TBL_SEMKEY"));
    c.keys.msgq = static_cast<key_t>(number(cfg, "IPC_MESSAGE_QUE", "TRAN_LOGF_MSGQKEY"));
    c.max_que_cnt = static_cast<int>(number(cfg, "TRAN_LOGF", "MAX_QUE_CNT"));
    return c;
}

std::string optional_token(const char* cfg, const char* section, const char* key) {
    std::FILE* fp = std::fopen(cfg, "r");
    if (!fp) return "";
    // Read as the library's reader reads: the section is the first header (a
    // line that opens with '[') holding its name, and ends at the next one;
    // a key line is "KEY = token ...".
    char line[1024];
    bool in_section = false;
    std::string token;
    while (token.empty() && std::fgets(line, sizeof line, fp)) {
        if (line[0] == '[') {
            if (in_section) break;
            in_section = std::strstr(line, section) != nullptr;
            continue;
        }
        char* save = nullptr;
        const char* word = in_section ? strtok_r(line, " \t\n=", &save) : nullptr;
        if (!word || std::strcmp(word, key) != 0) continue;
        const char* eq = std::strchr(word + std::strlen(word) + 1, '=');
        char* rest = const_cast<char*>(eq ? eq + 1 : save);
        if (const char* first = strtok_r(rest, " \t\r\n", &save)) token = first;
    }
    std::fclose(fp);
    return token.substr(0, kCfgTokenMax);
}

}  // namespace varnix::agent
