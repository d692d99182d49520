#include <sys/shm.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <utility>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>
#include "core/gvar.h"
#include "core/log_printf.h"
#include "core/status.h"
#include "support/test_ipc.h"

namespace varnix {
namespace {

using test::TestIpc;

class TranInit : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(ipc.ok()); }
    void TearDown() override { reset(); }
    // Detaches whatever a tran_init attached, so every attempt starts from scratch.
    void reset() {
        if (gvar.que_info) shmdt(std::exchange(gvar.que_info, nullptr));
        if (gvar.svc_hash_tbl) shmdt(std::exchange(gvar.svc_hash_tbl, nullptr));
        if (gvar.ptrc_hash_tbl) shmdt(std::exchange(gvar.ptrc_hash_tbl, nullptr));
        gvar.init_mark = 0;
        ipc.reset();
    }
    void write_config_with(const std::string& key, const std::string& line) {
        std::string text = test::read_file(ipc.cfg_path());
        size_t at = text.find("\n" + key + " = ");
        ASSERT_NE(at, std::string::npos) << key;
        text.replace(at + 1, text.find('\n', at + 1) - at - 1, line);
        ASSERT_TRUE(kit::write_file(ipc.cfg_path(), text));
    }
    std::string last_log_message() {
        std::vector<std::string> messages = test::log_messages(ipc.read_log(), 0);
        return messages.empty() ? "" : messages.back();
    }
    TestIpc& ipc = TestIpc::get();
};

TEST_F(TranInit, AttachesEverythingTheConfigurationNamesAndCheckGvarFollowsIt) {
    write_config_with("TONG_LOG_HOME", "TONG_LOG_HOME = tong");
    write_config_with("DBIO_FUNC", "DBIO_FUNC = 3 ABCDEFGHIJKLMN");
    ASSERT_EQ(tran_init(), kOk);
    const kit::Collector::Ids& ids = ipc.collector().ids();
    EXPECT_EQ((std::vector{gvar.que_info_shmid, gvar.svc_hash_shmid, gvar.svc_hash_semid, gvar.ptrc_hash_shmid,
                           gvar.ptrc_hash_semid, gvar.msgq_cnt}),
              (std::vector{ids.que_info_shm, ids.svc_shm, ids.svc_sem, ids.ptrc_shm, ids.ptrc_sem, 4}));
    for (int q = 0; q < VARNIX_MAX_QUE_CNT; ++q) EXPECT_EQ(gvar.msgq_id[q], q < 4 ? ids.msgq[q] : -1) << q;
    EXPECT_EQ(std::string(log_home_dir) + "," + tong_log_home_dir, ipc.dir() + "/agt/log,/tong");
    EXPECT_EQ(std::string(gvar.log_interface) + "," + gvar.tr_section + "," + gvar.dbio_func_nm, "MQ,A,ABCDEFGHIJ");
    EXPECT_EQ((std::vector{gvar.idle_thread_release[0], gvar.idle_thread_release[1], gvar.infinite_loop_base_cnt,
                           gvar.default_timeout_sec, gvar.dbio_func_no}),
              (std::vector{30, 60, 1000, 60, 3}));
    EXPECT_EQ(last_log_message(), "(I) write_qidx_idx_gid_rng - (offset : 0, size 30, gid[0]~gid[29]) ");
    // The block is the collector's: what it writes there is what check_gvar sees.
    TRAN_LOGF_QUE_INFO& q = ipc.que_info();
    EXPECT_EQ(check_gvar('1'), VARNIX_RC_NOT_INIT);  // tran_init alone does not mark the library ready
    gvar.init_mark = kInitMarkReady;
    q.log_flag_set = VARNIX_FLAG_S;
    for (char t : {'1', '2', '3', 'a', 'S', 'Z', '\0'}) EXPECT_EQ(check_gvar(t), kOk) << t;
    for (char t : {'9', 'E', 'V', 'B', 'C', 'I', 'X', 'Q'}) EXPECT_EQ(check_gvar(t), VARNIX_RC_CLASS_OFF) << t;
    // The magic is checked before qcnt.
    for (auto [magic, qcnt, rc] : {std::tuple<uint32_t, uint32_t, int>{VARNIX_MAGIC_CODE, 17u, VARNIX_RC_NO_QUE_INFO},
                                   {VARNIX_MAGIC_CODE, 0u, VARNIX_RC_NO_QUE_INFO}, {VARNIX_MAGIC_CODE, 16u, kOk},
                                   {0u, 0u, VARNIX_RC_BAD_MAGIC}}) {
        q.magic_code = magic, q.qcnt = qcnt;
        EXPECT_EQ(check_gvar('1'), rc) << qcnt;
    }
    // A second initialization is refused, the pid refreshed all the same.
    gvar.pid = 0;
    EXPECT_EQ(tran_init(), VARNIX_RC_ALREADY_INIT);
    EXPECT_EQ(gvar.pid, getpid());
}

TEST_F(TranInit, BadEnvironmentOrConfigurationFailsWithItsMessage) {
    for (const char* name : {"TRAN_HOME", "TRAN_AGT_HOME", "TRAN_AGT_CFG_FILE"}) {
        std::string saved = std::getenv(name);
        ASSERT_EQ(unsetenv(name), 0);
        EXPECT_EQ(tran_init(), VARNIX_RC_NO_ENV) << name;
        EXPECT_EQ(last_log_message(), std::string("<!> please, check environment-variable (") + name + ")");
        setenv(name, saved.c_str(), 1);
    }
    const key_t unused = ipc.default_config().keys.que_info + 7;  // in this process's block, never created
    char unused_hex[16];
    std::snprintf(unused_hex, sizeof unused_hex, "%x", unused);
    struct Case {  // message "": fails silently; attaches: gets as far as attaching the control block
        std::string key, value, message;
        bool attaches = false;
    };
    const std::string fail = "<!> tran_init fail, ", missing = fail + "not found section [";
    std::vector<Case> cases = {
        {"IDLE_THREAD_RELEASE", "30", missing + "IDLE_THREAD_RELEASE]"},
        {"MAX_QUE_CNT", "17", fail + "MAX_QUE_CNT(17) out of range (1..16)"},
        {"MAX_QUE_CNT", "0", fail + "MAX_QUE_CNT(0) out of range (1..16)"},
        {"WRITE_QUE_IDX_GID_RNG", "20 13", fail + "WRITE_QUE_IDX_GID_RNG out of the GID (offset : 20, size 13)"},
        {"SVC_HASH_TBL_SEMKEY", std::to_string(unused),
         "<!> svc_hash_tbl semaphore create error.[key:0x" + std::string(unused_hex) + "]", true},
        {"MAX_QUE_CNT", "5", "<!> create fail msgq#04", true},
    };
    // Missing keys: nothing is attached before every key has been read.
    for (std::string key : {"TONG_LOG_HOME", "LOG_INTERFACE", "TRAN_LOGF_QUE_INFO_SHMKEY", "IDLE_THREAD_RELEASE",
                            "INFINITE_LOOP_BASE_CNT", "MAX_QUE_CNT", "WRITE_QUE_IDX_GID_RNG", "TRAN_LOGF_MSGQKEY",
                            "DBIO_FUNC", "DEFAULT_TIMEOUT_SEC"})
        cases.push_back({key, "#", missing + key + "]"});
    for (const char* key : {"TR_SECTION", "SVC_HASH_TBL_SHMKEY", "SVC_HASH_TBL_SEMKEY", "PTRC_HASH_TBL_SHMKEY",
                            "PTRC_HASH_TBL_SEMKEY"})
        cases.push_back({key, "#", ""});
    // Keys that are no decimal number, or read as 0 (IPC_PRIVATE: a new
    // private object per attempt), or whose queue keys would reach 0 or overflow.
    const char* invalid[][2] = {{"PTRC_HASH_TBL_SHMKEY", "0"},    {"TRAN_LOGF_QUE_INFO_SHMKEY", "0x40001234"},
                                {"SVC_HASH_TBL_SEMKEY", "12abc"}, {"TRAN_LOGF_MSGQKEY", "-3"},
                                {"TRAN_LOGF_MSGQKEY", "2147483646"}, {"TRAN_LOGF_QUE_INFO_SHMKEY", "4294967296"}};
    for (auto [key, value] : invalid)
        cases.push_back({key, value, fail + "invalid IPC key [" + key + "] : " + value});
    for (const Case& c : cases) {
        SCOPED_TRACE(c.key + " = " + c.value);
        write_config_with(c.key, c.value == "#" ? "#" + c.key : c.key + " = " + c.value);
        log_printf("marker");
        ::testing::internal::CaptureStderr();
        EXPECT_EQ(tran_init(), VARNIX_RC_NOT_INIT);
        ::testing::internal::GetCapturedStderr();
        EXPECT_EQ(last_log_message(), c.message.empty() ? "marker" : c.message);
        EXPECT_EQ(gvar.que_info != nullptr, c.attaches);
        reset();
    }
}

TEST(TranHelpers, FlagLettersReturnCodeVerdictsAndProcessNames) {
    EXPECT_EQ((std::vector{get_log_flag_set("SEVBCIXQ"), get_log_flag_set("S,E Q"), get_log_flag_set("sq"),
                           get_log_flag_set(nullptr)}),
              (std::vector<uint8_t>{0xFF, 0x83, 0, 0}));
    // The error-code rule works on the attached control block, and is refused without one.
    int8_t table[128] = {};
    const int32_t saved_mark = gvar.init_mark.exchange(0);
    int8_t* saved = std::exchange(gvar.fst_err_rc_set, table);
    EXPECT_EQ(set_fst_err_rc_set("-100,2"), -1);
    gvar.init_mark.store(kInitMarkReady);
    EXPECT_EQ(set_fst_err_rc_set("-100,2"), 0);
    // Codes beyond any table entry, however long, are refused, never indexed.
    for (const char* bad : {"-1403,1", "5,12", "5,3", ",1", "5", "5,", "5,x", "129,1", "-129,1",
                            "-99999999999999999999999,1"})
        EXPECT_EQ(set_fst_err_rc_set(bad), -1) << bad;
    EXPECT_EQ(set_fst_err_rc_set("-0000000000000000000000000000000000000000006,1"), 0);  // read whole
    // Classifying a finished call: only negative codes down to -127, by the table.
    CALL_LVL lvl{};
    for (int32_t rc : {1, -128, INT32_MIN, -5, -6, -100}) {
        lvl.rc = rc;
        EXPECT_EQ(is_err_rc(&lvl), rc == -100 ? 2 : rc == -6 ? 1 : 0) << rc;
    }
    lvl.start_opt = 0xFFFFFFFFu;
    EXPECT_EQ(is_err_rc(&lvl), 0);
    EXPECT_EQ(lvl.rc, 99);
    EXPECT_EQ(set_fst_err_rc_set("128,1"), 0);
    for (int8_t v : table) EXPECT_EQ(v, 1);
    gvar.fst_err_rc_set = saved;
    gvar.init_mark.store(saved_mark);
    // Process names: no such stat file changes nothing; a 30-character container name is kept whole.
    char proc_nm[31] = "unchanged", cont_nm[31] = {};
    set_proc_nm(proc_nm, cont_nm, -5);
    EXPECT_STREQ(proc_nm, "unchanged");
    std::strcpy(init_cont_nm, "container-name-of-exactly-30ch");
    set_proc_nm(proc_nm, cont_nm, getpid());
    init_cont_nm[0] = '\0';
    EXPECT_EQ(std::string(proc_nm) + "," + cont_nm, "test_tran_ex,container-name-of-exactly-30ch");
}

}  // namespace
}  // namespace varnix
