// The agent's reading of its configuration file: every key the agent and the
// library need, checked before anything is created.
#pragma once

#include <string>

#include "collector/host_objects.h"

namespace varnix::agent {

// Checks every key; false, with a line naming the first missing, non-numeric
// or zero key on standard error.
bool check_config(const char* cfg);

// The record-class letters of TRAN_LOG_FLAG_SET and `set log_flag_set`.
inline constexpr char kFlagLetters[] = "SEVBCIXQ";

// What `start` checks besides: every key line is one that the agent or the
// library reads, in its section, and TRAN_LOG_FLAG_SET has record-class
// letters only (or is "-").  False, with a line naming each unknown key and
// letter on standard error.
bool check_every_key(const char* cfg);

// Token 1 of an optional key of the agent's own: "" when the section or the
// key is absent, which is said nowhere (the reader would say it on standard
// error).
std::string optional_token(const char* cfg, const char* section, const char* key);

// The IPC keys and the number of queues of a checked configuration.
struct ConfigKeys {
    collector::Keys keys{};
    int max_que_cnt = 0;
};
ConfigKeys config_keys(const char* cfg);

}  // namespace varnix::agent
