// Configuration files as test processes write them for the library and the
// agent.
#pragma once

#include <string>

#include "kit/collector.h"

namespace varnix::kit {

struct AgentConfig {
    Keys keys;
    std::string log_home;       // COMMON LOG_HOME
    std::string tong_log_home;  // COMMON TONG_LOG_HOME
    int que_cnt = 4;
    int max_que_cnt = 4;
    std::string log_flag_set = "SEVBCIXQ";
    std::string fst_err_rc_set = "0,0";  // tokens "code,verdict"
    int svc_filtering = 0;
    int call_trc_depth = 10;
    long call_trc_limit = 0;
    long dbio_trc_limit = 0;
    long sql_trc_limit = 0;
    int idle_thread_release = 30;  // first token of IDLE_THREAD_RELEASE
    int infinite_loop_base_cnt = 1000;
    int default_timeout_sec = 60;
    int gid_rng_pos = 0;
    int gid_rng_siz = 30;
    std::string dbio_func = "0 DBIO_";
    std::string ipc_mode, ipc_group;  // VARNIX_AGENT IPC_MODE and IPC_GROUP, left out when empty
};

std::string config_text(const AgentConfig& conf);
bool write_file(const std::string& path, const std::string& text);

}  // namespace varnix::kit
