// Who may use the agent's IPC objects: the keys IPC_MODE (octal permission
// bits, 0660 when absent) and IPC_GROUP (a group name or number) of section
// VARNIX_AGENT.  Without IPC_GROUP the objects are for the group varnix,
// which the packages create and the users of traced servers join; on a host
// without that group (a developer's machine, a test) they keep the agent's
// own group, which the agent says.  An IPC_GROUP that names no group is an
// error.
#pragma once

#include "collector/ipc_object.h"

namespace varnix::agent {

inline constexpr char kDefaultIpcGroup[] = "varnix";

// The access the configuration asks for, with the group resolved; false,
// with a line naming the key on standard error, when a key is not valid.
bool ipc_access(const char* cfg, collector::Access& out);

}  // namespace varnix::agent
