// The shared object's interface: exactly the exported set, and nothing needed
// beyond the C library.
#include <cstdio>
#include <set>
#include <string>

#include <gtest/gtest.h>

namespace {

std::set<std::string> lines_of(const std::string& command) {
    std::set<std::string> out;
    std::FILE* p = popen(command.c_str(), "r");
    if (!p) return out;
    char line[512];
    while (std::fgets(line, sizeof line, p)) {
        std::string s(line);
        while (!s.empty() && (s.back() == '\n' || s.back() == ' ')) s.pop_back();
        if (!s.empty()) out.insert(s);
    }
    pclose(p);
    return out;
}

TEST(Exports, ExactlyThePublicInterfaceAndOnlyTheCLibrary) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "sanitizer runtimes add their own symbols and libraries";
#endif
    std::set<std::string> expected = {
        // start, stop, notices and information records
        "TRAN_INIT", "TRAN_DONE", "TRAN_EVENT", "TRAN_ERRINFO", "TRAN_INFO", "TRAN_INFO_EX",
        // service, call and SQL tracing
        "TRAN_START", "TRAN_END", "TRAN_ERROR", "TRAN_PT_START", "TRAN_PT_END", "TRAN_CALLINFO_S", "TRAN_CALLINFO_F",
        "TRAN_SQL_STMT", "TRAN_SQL_ID",
        // standard-telegram entries and their field table
        "TRAN_STARTX", "TRAN_ENDX", "_STD_TMSG_LEN", "_GLBL_ID", "_IPV6_ADR", "_FST_TRMS_SYS_CD", "_TRMS_SYS_CD",
        "_RQST_RSPS_DV_CD", "_TRSC_SYNC_DV_CD", "_RECV_SVC_CD", "_RSLT_RECV_SVC_CD", "_EAI_INTF_ID", "_PROC_RSLT_DV_CD",
        "_DSBL_SYS_CD", "_STD_TMSG_ERR_CD", "_CHNL_TYP_CD", "_EMP_NO", "_TRSC_GRCO_CD", "_TRSC_BR_NO", "_SCRN_ID",
        "_OTSD_INST_CD", "_OTSD_BIZ_CD", "_FST_TRMS_MDCL_CTT", "_STD_TMSG_DAT_KIND_CD", "_ERR_ORGN_ITEM_REPT_TCNT",
        "_ERR_ORGN_ITEM_NM", "_MSG_INFO_REPT_TCNT", "_MSG_CD", "_RSPS_MSG_CTT", "_ADTN_MSG_REPT_TCNT", "_ADTN_MSG",
        // front-end services
        "TRAN_CLH_START", "TRAN_CLH_END", "TRAN_CLH_ERROR", "TRAN_WEB_START", "TRAN_WEB_END", "TRAN_FEP_START",
        "TRAN_FEP_END",
        // context setters
        "TRAN_SET_TIME", "TRAN_CHECK_SQL_TIME", "TRAN_GET_HASH_CODE", "TRAN_SET_DBIO_STS", "TRAN_SET_SQLCA_INFO",
        "TRAN_SET_DBCONN_INFO", "TRAN_SET_FETCH_INFO", "TRAN_SET_SVCTIMEOUT",
        // diagnostics, configuration, collector-side helpers, text cutting, the full-message writer thread
        "show_mtr_idx_list", "set_cont_nm", "get_log_flag_set", "set_fst_err_rc_set", "read_config", "read_msgq",
        "remove_msgq", "change_mode_msgq", "get_msgq_num", "init_sem_val", "init_ptrc_hash_tbl", "init_svc_hash_tbl",
        "svc_hash_push", "svc_hash_pop", "svc_hash_popv", "svc_hash_show", "jcache_hash_push", "jcache_hash_pop",
        "hcut", "th_join_thread", "th_cancel_thread", "save_tong_log4c",
        // data
        "log_home_dir", "tong_log_home_dir", "jni_init_flag", "init_cont_nm", "init_db_user", "init_db_sid",
        "nfailcount", "gvar_cleared",
    };
    // The Java class's native methods, in a build with the Java binding.
    for (const char* method : {"Init", "Done", "TranStart", "TranEnd", "TranError", "TranStartX", "TranEndX",
                               "TranStartM", "TranEndM", "TranErrorInfo", "TranInfo", "TranInfoEx", "TranEvent",
                               "TranCallInfoS", "TranCallInfoF", "TranSqlId", "TranSqlStmt", "TranLibV", "TranSetTime"})
        if (VARNIX_JAVA) expected.insert(std::string("Java_com_tolvo_tran_api_TranApiAdapter_") + method);
    EXPECT_EQ(lines_of("nm -D --defined-only " VARNIX_SO " | awk '$2 ~ /^[TBDRV]$/ {print $3}'"), expected);

    const std::set<std::string> glibc = {"libc.so.6", "ld-linux-x86-64.so.2"};
    std::set<std::string> needed = lines_of("readelf -d " VARNIX_SO " | sed -n 's/.*(NEEDED).*\\[\\(.*\\)\\]/\\1/p'");
    EXPECT_TRUE(needed.count("libc.so.6"));
    for (const std::string& lib : needed) EXPECT_TRUE(glibc.count(lib)) << lib;
    // No C++ runtime symbol may leak out or be needed from outside (weak
    // references the runtime leaves unresolved are harmless).
    EXPECT_TRUE(lines_of("nm -D " VARNIX_SO " | grep -v ' w ' | grep -E 'GLIBCXX|CXXABI|_Z'").empty());
}

}  // namespace
