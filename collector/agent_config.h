// The agent's reading of its configuration file: every key the agent and the
// library need, checked before anything is created.
#pragma once

#include "collector/kit.h"

namespace varnix::agent {

// Checks every key; false, with a line naming the first missing, non-numeric
// or zero key on standard error.
bool check_config(const char* cfg);

// The IPC keys and the number of queues of a checked configuration.
struct ConfigKeys {
    kit::Keys keys{};
    int max_que_cnt = 0;
};
ConfigKeys config_keys(const char* cfg);

}  // namespace varnix::agent
