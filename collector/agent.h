// varnix-agent's commands; each returns the process's exit status.
#pragma once

#include <string>
#include <vector>

namespace varnix::agent {

struct Options {
    std::string cfg;                // -c FILE, else TRAN_AGT_CFG_FILE
    std::string out;                // start: --out FILE, else standard output
    std::string otlp;               // start: --otlp URL, the OTLP/HTTP receiver
    bool once = false;              // top: one snapshot, no refresh
    std::vector<std::string> args;  // the command's own words
};

int start_command(const Options& o);
int cleanup_command(const Options& o);
int set_command(const Options& o);
int snapshot_command(const Options& o);
int top_command(const Options& o);

}  // namespace varnix::agent
