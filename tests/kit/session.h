// A collector owned by one process (a fuzz target, the soak): a temporary
// home with the agent configuration and the log directories, the environment
// that points the library at it, and the IPC objects under the process's own
// keys.  Everything is removed at exit, on SIGINT and SIGTERM, and by remove().
#pragma once

#include <string>

#include "kit/config_file.h"

namespace varnix::kit {

class Session {
public:
    // Creates the one session of this process (home /tmp/<prefix>-XXXXXX)
    // from `conf`, whose keys and homes it sets itself, and sets TRAN_HOME,
    // TRAN_AGT_HOME and TRAN_AGT_CFG_FILE; null, with a message on standard
    // error, when anything fails (what was created is removed).
    static Session* start(const char* prefix, AgentConfig conf = {});

    Collector& collector() { return collector_; }
    const std::string& home() const { return home_; }
    // Removes the IPC objects and the home.  Safe to call again.
    void remove();

private:
    Session() = default;
    int create(const char* prefix, AgentConfig& conf);

    Collector collector_;
    std::string home_;
};

}  // namespace varnix::kit
