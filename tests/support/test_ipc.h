// The collector of one test binary: created on first use with IPC keys derived
// from the test process's pid, removed at exit and on a crash.
#pragma once

#include <string>
#include <vector>

#include "kit/config_file.h"

namespace varnix::test {

class TestIpc {
public:
    // Creates the directory, the configuration file and the collector on the
    // first call; later calls return the same one.  Check ok().
    static TestIpc& get();

    bool ok() const { return ok_; }
    kit::Collector& collector() { return collector_; }
    TRAN_LOGF_QUE_INFO& que_info() { return *collector_.que_info(); }

    // Temporary home of this binary: agt/ (agent home), agt/log/proc/libvarnix
    // (diagnostic log), tong/ (full-message files).
    const std::string& dir() const { return dir_; }
    std::string cfg_path() const { return dir_ + "/agt/varnix.cfg"; }
    std::string tong_dir() const { return dir_ + "/tong"; }
    std::string log_dir() const { return dir_ + "/agt/log/proc/libvarnix"; }

    // The configuration this binary's collector was created from.
    kit::AgentConfig default_config() const;
    // Rewrites the configuration file (the keys stay this process's) and sets
    // TRAN_HOME, TRAN_AGT_HOME and TRAN_AGT_CFG_FILE for it.
    bool write_config(const kit::AgentConfig& conf) const;
    // Puts back the default configuration and control block, empties the
    // service table and drains the queues.
    void reset();
    // Removes every object and creates them anew under the same keys, as an
    // agent stopped and started again does; 0 or -1.
    int recreate();

    // Today's diagnostic log file, and its whole text.
    std::string log_path() const;
    std::string read_log() const;

private:
    TestIpc();
    bool ok_ = false;
    int owner_pid_;  // the process that created the collector
    std::string dir_;
    kit::Collector collector_;
};

// Whole content of a file ("" when missing).
std::string read_file(const std::string& path);

// The messages of a diagnostic log text from byte `from` on, without the
// "(pid) MM-DD HH:MM:SS  " prefix and the line end.
std::vector<std::string> log_messages(const std::string& text, size_t from);

}  // namespace varnix::test
