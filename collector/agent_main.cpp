// varnix-agent: the collector agent of libvarnix.
#include <cstdio>
#include <cstdlib>
#include <string_view>

#include "collector/agent.h"
#include "varnix.h"

namespace {

using namespace varnix::agent;

constexpr const char* kUsage =
    "usage: varnix-agent COMMAND [-c FILE] ...\n"
    "       varnix-agent --help | --version\n"
    "  start [--out OUT] [--otlp URL]\n"
    "                       create the IPC objects of FILE, or take over those a crashed agent left,\n"
    "                       and append every record as a JSON line to OUT (standard output by default)\n"
    "                       until SIGINT, SIGTERM or SIGHUP; then drain the queues and remove the objects;\n"
    "                       with --otlp (or OTLP_URL in section VARNIX_AGENT) export spans and log\n"
    "                       records to the OTLP/HTTP receiver at URL; the objects get the mode IPC_MODE\n"
    "                       (0660) and the group IPC_GROUP (varnix) of section VARNIX_AGENT\n"
    "  cleanup              remove the IPC objects of FILE when no agent runs with them\n"
    "  set NAME=VALUE...    change switches: log_flag_set=SEVBCIXQ capture=on|off call_trc_depth=N\n"
    "                       call_trc_limit=US dbio_trc_limit=US sql_trc_limit=US svc_filtering=0|1|2\n"
    "                       fst_err_rc_set=CODE,VERDICT services=FILE (a service table file)\n"
    "  snapshot TRCD        arm a snapshot of the next service of every thread started with trade code TRCD\n"
    "  top [--once]         the transactions in flight, refreshed every second\n"
    "FILE defaults to $TRAN_AGT_CFG_FILE.\n";

struct Command {
    const char* name;
    int (*run)(const Options&);
};
constexpr Command kCommands[] = {
    {"start", start_command}, {"cleanup", cleanup_command}, {"set", set_command},
    {"snapshot", snapshot_command}, {"top", top_command}};

int usage(std::FILE* to, int status) {
    std::fputs(kUsage, to);
    return status;
}

int misuse(const char* what, const char* word) {
    std::fprintf(stderr, "varnix-agent: %s '%s'\n", what, word);
    return usage(stderr, 2);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) return usage(stderr, 2);
    const std::string_view first = argv[1];
    if (first == "--help" || first == "-h" || first == "help") return usage(stdout, 0);
    if (first == "--version") {
        std::printf("varnix-agent %s\n", VARNIX_VERSION);
        return 0;
    }
    const Command* cmd = nullptr;
    for (const Command& c : kCommands)
        if (first == c.name) cmd = &c;
    if (!cmd) return misuse("unknown command", argv[1]);
    Options o;
    if (const char* env = std::getenv("TRAN_AGT_CFG_FILE")) o.cfg = env;
    for (int i = 2; i < argc; ++i) {
        const std::string_view a = argv[i];
        if (a == "-c" || a == "--out" || a == "--otlp") {
            if (i + 1 == argc) return misuse("a value is missing after", argv[i]);
            (a == "-c" ? o.cfg : a == "--out" ? o.out : o.otlp) = argv[++i];
        } else if (a == "--once") {
            o.once = true;
        } else if (a.starts_with("-")) {
            return misuse("unknown option", argv[i]);
        } else {
            o.args.emplace_back(a);
        }
    }
    if (o.cfg.empty()) {
        std::fputs("varnix-agent: no configuration: give -c FILE or set TRAN_AGT_CFG_FILE\n", stderr);
        return 2;
    }
    return cmd->run(o);
}
