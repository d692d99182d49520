#include "kit/config_file.h"

#include <cstdio>

namespace varnix::kit {

std::string config_text(const AgentConfig& s) {
    char buf[4096];
    std::snprintf(buf, sizeof buf,
                  "[COMMON]\n"
                  "LOG_HOME = %s\n"
                  "TONG_LOG_HOME = %s\n"
                  "\n[TRAN_LOGF]\n"
                  "LOG_INTERFACE = MQ\n"
                  "TR_SECTION = A\n"
                  "QUE_CNT = %d\n"
                  "MAX_QUE_CNT = %d\n"
                  "TRAN_LOG_FLAG_SET = %s\n"
                  "FST_ERR_RC_SET = %s\n"
                  "SVC_FILTERING = %d\n"
                  "CALL_TRC_DEPTH = %d\n"
                  "CALL_TRC_LIMIT = %ld\n"
                  "DBIO_TRC_LIMIT = %ld\n"
                  "SQL_TRC_LIMIT = %ld\n"
                  "IDLE_THREAD_RELEASE = %d 60\n"
                  "INFINITE_LOOP_BASE_CNT = %d\n"
                  "WRITE_QUE_IDX_GID_RNG = %d %d\n"
                  "\n[IPC_SHARED_MEMORY]\n"
                  "TRAN_LOGF_QUE_INFO_SHMKEY = %d\n"
                  "SVC_HASH_TBL_SHMKEY = %d\n"
                  "PTRC_HASH_TBL_SHMKEY = %d\n"
                  "\n[IPC_SEMAPHORE]\n"
                  "SVC_HASH_TBL_SEMKEY = %d\n"
                  "PTRC_HASH_TBL_SEMKEY = %d\n"
                  "\n[IPC_MESSAGE_QUE]\n"
                  "TRAN_LOGF_MSGQKEY = %d\n"
                  "\n[DATA_SIGNATURE]\n"
                  "DBIO_FUNC = %s\n"
                  "\n[SERVICE_HASH]\n"
                  "DEFAULT_TIMEOUT_SEC = %d\n"
                  "\n[VARNIX_AGENT]\n",
                  s.log_home.c_str(), s.tong_log_home.c_str(), s.que_cnt, s.max_que_cnt, s.log_flag_set.c_str(),
                  s.fst_err_rc_set.c_str(), s.svc_filtering, s.call_trc_depth, s.call_trc_limit, s.dbio_trc_limit,
                  s.sql_trc_limit, s.idle_thread_release, s.infinite_loop_base_cnt, s.gid_rng_pos, s.gid_rng_siz, s.keys.que_info,
                  s.keys.svc_shm, s.keys.ptrc_shm, s.keys.svc_sem, s.keys.ptrc_sem, s.keys.msgq, s.dbio_func.c_str(),
                  s.default_timeout_sec);
    std::string text = buf;
    if (!s.ipc_mode.empty()) text.append("IPC_MODE = ").append(s.ipc_mode).append("\n");
    if (!s.ipc_group.empty()) text.append("IPC_GROUP = ").append(s.ipc_group).append("\n");
    return text;
}

bool write_file(const std::string& path, const std::string& text) {
    std::FILE* fp = std::fopen(path.c_str(), "w");
    if (!fp) return false;
    bool ok = std::fwrite(text.data(), 1, text.size(), fp) == text.size();
    return std::fclose(fp) == 0 && ok;
}

}  // namespace varnix::kit
