#include <sys/shm.h>
#include <unistd.h>

#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "core/gvar.h"
#include "core/log_printf.h"
#include "core/status.h"
#include "support/test_ipc.h"

namespace varnix {
namespace {

using test::TestIpc;

// Detaches whatever a tran_init attached, so every test starts from scratch.
void detach_gvar() {
    for (void* addr : {static_cast<void*>(gvar.que_info), static_cast<void*>(gvar.svc_hash_tbl),
                       static_cast<void*>(gvar.ptrc_hash_tbl)})
        if (addr) shmdt(addr);
    gvar.que_info = nullptr;
    gvar.svc_hash_tbl = nullptr;
    gvar.ptrc_hash_tbl = nullptr;
    gvar.init_mark = 0;
}

// The last line of the diagnostic log, without the "(pid) MM-DD HH:MM:SS  " stamp.
std::string last_log_message() {
    std::string log = TestIpc::get().read_log();
    if (!log.empty() && log.back() == '\n') log.pop_back();
    std::string line = log.substr(log.rfind('\n') + 1);
    size_t stamp = line.find("  ");
    return stamp == std::string::npos ? line : line.substr(stamp + 2);
}

class TranInit : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(ipc.ok()); }
    void TearDown() override {
        detach_gvar();
        ipc.reset();
    }
    // Rewrites the configuration file with `key`'s line replaced by `line`.
    void write_config_with(const std::string& key, const std::string& line) {
        std::string text = test::read_file(ipc.cfg_path());
        size_t at = text.find("\n" + key + " = ");
        ASSERT_NE(at, std::string::npos) << key;
        size_t end = text.find('\n', at + 1);
        text.replace(at + 1, end - at - 1, line);
        ASSERT_TRUE(kit::write_file(ipc.cfg_path(), text));
    }
    TestIpc& ipc = TestIpc::get();
};

TEST_F(TranInit, AttachesEverythingTheConfigurationNames) {
    ASSERT_EQ(tran_init(), kOk);
    kit::Collector& c = ipc.collector();
    EXPECT_EQ(gvar.que_info_shmid, c.ids().que_info_shm);
    EXPECT_EQ(gvar.svc_hash_shmid, c.ids().svc_shm);
    EXPECT_EQ(gvar.svc_hash_semid, c.ids().svc_sem);
    EXPECT_EQ(gvar.ptrc_hash_shmid, c.ids().ptrc_shm);
    EXPECT_EQ(gvar.ptrc_hash_semid, c.ids().ptrc_sem);
    for (int q = 0; q < VARNIX_MAX_QUE_CNT; ++q) EXPECT_EQ(gvar.msgq_id[q], q < 4 ? c.msgq_id(q) : -1) << q;
    // The block is the collector's: a write through the library's pointer shows there.
    *gvar.log_flag_set = 0x5A;
    EXPECT_EQ(c.que_info()->log_flag_set, 0x5A);
    EXPECT_EQ(gvar.ptrc_hash_tbl->free_stk.cnt, c.ptrc()->free_stk.cnt);

    EXPECT_EQ(std::string(log_home_dir), ipc.dir() + "/agt/log");
    EXPECT_EQ(std::string(tong_log_home_dir), ipc.tong_dir());
    EXPECT_STREQ(gvar.log_interface, "MQ");
    EXPECT_STREQ(gvar.tr_section, "A");
    EXPECT_EQ(gvar.idle_thread_release[0], 30);
    EXPECT_EQ(gvar.idle_thread_release[1], 60);
    EXPECT_EQ(gvar.infinite_loop_base_cnt, 1000);
    EXPECT_EQ(gvar.default_timeout_sec, 60);
    EXPECT_EQ(gvar.dbio_func_no, 0);
    EXPECT_STREQ(gvar.dbio_func_nm, "DBIO_");
    EXPECT_EQ(gvar.pid, getpid());
    char host[65] = {};
    gethostname(host, sizeof host - 1);
    EXPECT_STREQ(gvar.host_name, host);
    EXPECT_STREQ(gvar.proc_nm, "test_tran_ex");
    EXPECT_EQ(last_log_message(), "(I) write_qidx_idx_gid_rng - (offset : 0, size 30, gid[0]~gid[29]) ");
}

TEST_F(TranInit, RelativeHomesAndLongDbioName) {
    write_config_with("TONG_LOG_HOME", "TONG_LOG_HOME = tong");
    write_config_with("DBIO_FUNC", "DBIO_FUNC = 3 ABCDEFGHIJKLMN");
    ASSERT_EQ(tran_init(), kOk);
    EXPECT_STREQ(tong_log_home_dir, "/tong");
    EXPECT_EQ(gvar.dbio_func_no, 3);
    EXPECT_STREQ(gvar.dbio_func_nm, "ABCDEFGHIJ");
}

TEST_F(TranInit, RefusesASecondInitialization) {
    gvar.init_mark = kInitMarkReady;
    gvar.pid = 0;
    EXPECT_EQ(tran_init(), VARNIX_RC_ALREADY_INIT);
    EXPECT_EQ(gvar.pid, getpid());  // refreshed all the same
    EXPECT_EQ(last_log_message(), "<!> already TRAN_INIT API initialized.");
}

TEST_F(TranInit, RequiresTheEnvironmentInOrder) {
    for (const char* name : {"TRAN_HOME", "TRAN_AGT_HOME", "TRAN_AGT_CFG_FILE"}) {
        std::string saved = std::getenv(name);
        ASSERT_EQ(unsetenv(name), 0);
        EXPECT_EQ(tran_init(), VARNIX_RC_NO_ENV) << name;
        EXPECT_EQ(last_log_message(), std::string("<!> please, check environment-variable (") + name + ")");
        setenv(name, saved.c_str(), 1);
    }
}

TEST_F(TranInit, EveryMissingKeyFailsWithItsMessage) {
    struct Case {
        const char* key;
        const char* message;  // nullptr: fails silently
    };
    const Case cases[] = {
        {"TONG_LOG_HOME", "<!> tran_init fail, not found section [TONG_LOG_HOME]"},
        {"LOG_INTERFACE", "<!> tran_init fail, not found section [LOG_INTERFACE]"},
        {"TR_SECTION", nullptr},
        {"TRAN_LOGF_QUE_INFO_SHMKEY", "<!> tran_init fail, not found section [TRAN_LOGF_QUE_INFO_SHMKEY]"},
        {"IDLE_THREAD_RELEASE", "<!> tran_init fail, not found section [IDLE_THREAD_RELEASE]"},
        {"INFINITE_LOOP_BASE_CNT", "<!> tran_init fail, not found section [INFINITE_LOOP_BASE_CNT]"},
        {"MAX_QUE_CNT", "<!> tran_init fail, not found section [MAX_QUE_CNT]"},
        {"SVC_HASH_TBL_SHMKEY", nullptr},
        {"SVC_HASH_TBL_SEMKEY", nullptr},
        {"PTRC_HASH_TBL_SHMKEY", nullptr},
        {"PTRC_HASH_TBL_SEMKEY", nullptr},
        {"WRITE_QUE_IDX_GID_RNG", "<!> tran_init fail, not found section [WRITE_QUE_IDX_GID_RNG]"},
        {"TRAN_LOGF_MSGQKEY", "<!> tran_init fail, not found section [TRAN_LOGF_MSGQKEY]"},
        {"DBIO_FUNC", "<!> tran_init fail, not found section [DBIO_FUNC]"},
        {"DEFAULT_TIMEOUT_SEC", "<!> tran_init fail, not found section [DEFAULT_TIMEOUT_SEC]"},
    };
    for (const Case& c : cases) {
        write_config_with(c.key, std::string("#") + c.key);
        log_printf("marker %s", c.key);
        ::testing::internal::CaptureStderr();
        EXPECT_EQ(tran_init(), VARNIX_RC_NOT_INIT) << c.key;
        std::string err = ::testing::internal::GetCapturedStderr();
        EXPECT_NE(err.find(std::string("not found keyword[") + c.key + "]"), std::string::npos) << err;
        EXPECT_EQ(last_log_message(), c.message ? c.message : std::string("marker ") + c.key) << c.key;
        detach_gvar();
        ipc.reset();
    }
    // A second token missing is reported like a missing key.
    write_config_with("IDLE_THREAD_RELEASE", "IDLE_THREAD_RELEASE = 30");
    ::testing::internal::CaptureStderr();
    EXPECT_EQ(tran_init(), VARNIX_RC_NOT_INIT);
    ::testing::internal::GetCapturedStderr();
    EXPECT_EQ(last_log_message(), "<!> tran_init fail, not found section [IDLE_THREAD_RELEASE]");
}

TEST_F(TranInit, MissingIpcObjectsFailWithTheirMessages) {
    kit::Keys keys = ipc.default_config().keys;
    const int unused = keys.que_info + 7;  // in this process's key block, never created
    struct Case {
        std::string line;
        std::string message;
    };
    const Case cases[] = {
        {"TRAN_LOGF_QUE_INFO_SHMKEY = " + std::to_string(unused),
         "<!> tran_init fail, shared-memory initialize [TRAN_LOGF_QUE_INFO], errno : 2"},
        {"SVC_HASH_TBL_SEMKEY = " + std::to_string(unused),
         "<!> svc_hash_tbl semaphore create error.[key:0x" + [&] {
             char hex[16];
             std::snprintf(hex, sizeof hex, "%x", unused);
             return std::string(hex);
         }() + "]"},
        {"SVC_HASH_TBL_SHMKEY = " + std::to_string(unused),
         "<!> tran_init fail, shared-memory initialize [SVC_HASH_TBL] ( 1862160 bytes)"},
        {"PTRC_HASH_TBL_SHMKEY = " + std::to_string(unused),
         "<!> tran_init fail, shared-memory initialize [PTRC_HASH_TBL] ( 603782160 bytes)"},
        {"MAX_QUE_CNT = 5", "<!> create fail msgq#04"},
        {"MAX_QUE_CNT = 17", "<!> tran_init fail, MAX_QUE_CNT(17) out of range (1..16)"},
        {"MAX_QUE_CNT = 0", "<!> tran_init fail, MAX_QUE_CNT(0) out of range (1..16)"},
        {"WRITE_QUE_IDX_GID_RNG = 20 13",
         "<!> tran_init fail, WRITE_QUE_IDX_GID_RNG out of the GID (offset : 20, size 13)"},
    };
    for (const Case& c : cases) {
        write_config_with(c.line.substr(0, c.line.find(' ')), c.line);
        EXPECT_EQ(tran_init(), VARNIX_RC_NOT_INIT) << c.line;
        EXPECT_EQ(last_log_message(), c.message);
        detach_gvar();
        ipc.reset();
    }
}

TEST_F(TranInit, CheckGvarFollowsTheControlBlock) {
    ASSERT_EQ(tran_init(), kOk);
    TRAN_LOGF_QUE_INFO& q = ipc.que_info();
    EXPECT_EQ(check_gvar('1'), VARNIX_RC_NOT_INIT);  // tran_init alone does not mark the library ready
    gvar.init_mark = kInitMarkFailed;
    EXPECT_EQ(check_gvar('1'), VARNIX_RC_NOT_INIT);
    gvar.init_mark = kInitMarkReady;
    EXPECT_EQ(check_gvar('1'), kOk);

    q.log_flag_set = VARNIX_FLAG_S;
    for (char t : {'1', '2', '3', 'a', 'S', 'Z', '\0'}) EXPECT_EQ(check_gvar(t), kOk) << t;
    for (char t : {'9', 'E', 'V', 'B', 'C', 'I', 'X', 'Q'}) EXPECT_EQ(check_gvar(t), VARNIX_RC_CLASS_OFF) << t;
    q.log_flag_set = 0xFF;

    q.qcnt = 17;
    EXPECT_EQ(check_gvar('1'), VARNIX_RC_NO_QUE_INFO);
    q.qcnt = 0;
    EXPECT_EQ(check_gvar('1'), VARNIX_RC_NO_QUE_INFO);
    q.magic_code = 0;
    EXPECT_EQ(check_gvar('1'), VARNIX_RC_BAD_MAGIC);  // the magic is checked before qcnt
    q.magic_code = VARNIX_MAGIC_CODE;
    q.qcnt = 16;
    gvar.svctimeout_mark = 1;
    EXPECT_EQ(check_gvar('1'), VARNIX_RC_SVC_TIMEOUT);
    gvar.svctimeout_mark = 0;
}

TEST(FlagEncoders, LogFlagSetLetters) {
    EXPECT_EQ(get_log_flag_set("SEQ"), 0x83);
    EXPECT_EQ(get_log_flag_set("SEVBCIXQ"), 0xFF);
    EXPECT_EQ(get_log_flag_set("sq"), 0);
    EXPECT_EQ(get_log_flag_set(""), 0);
    EXPECT_EQ(get_log_flag_set(nullptr), 0);
    EXPECT_EQ(get_log_flag_set("S,E V"), 0x07);
}

TEST(FlagEncoders, ReturnCodeVerdicts) {
    int8_t table[128] = {};
    EXPECT_EQ(apply_fst_err_rc(table, "-1403,1"), -1);
    EXPECT_EQ(apply_fst_err_rc(table, "-100,2"), 0);
    EXPECT_EQ(table[100], 2);
    EXPECT_EQ(apply_fst_err_rc(table, "7,1"), 0);
    EXPECT_EQ(table[7], 1);
    // Codes beyond any table entry, however long, are refused, never indexed.
    for (const char* bad : {"5,12", "5,3", ",1", "5", "5,", "5,x", "129,1", "-129,1", "-9223372036854775808,1",
                            "-99999999999999999999999,1"})
        EXPECT_EQ(apply_fst_err_rc(table, bad), -1) << bad;
    EXPECT_EQ(table[5], 0);
    EXPECT_EQ(apply_fst_err_rc(table, "-0000000000000000000000000000000000000000006,1"), 0);  // read whole
    EXPECT_EQ(table[6], 1);
    EXPECT_EQ(apply_fst_err_rc(table, "128,1"), 0);
    for (int8_t v : table) EXPECT_EQ(v, 1);
    EXPECT_EQ(apply_fst_err_rc(table, "-128,0"), 0);
    for (int8_t v : table) EXPECT_EQ(v, 0);

    // The exported encoder works on the attached control block, and refuses without one.
    const int32_t saved_mark = gvar.init_mark.load();
    int8_t* saved = gvar.fst_err_rc_set;
    gvar.fst_err_rc_set = table;
    gvar.init_mark.store(0);
    EXPECT_EQ(set_fst_err_rc_set("-1,2"), -1);
    gvar.init_mark.store(kInitMarkReady);
    EXPECT_EQ(set_fst_err_rc_set("-1,2"), 0);
    EXPECT_EQ(table[1], 2);

    // Classifying a finished call.
    CALL_LVL lvl{};
    lvl.rc = -1;
    EXPECT_EQ(is_err_rc(&lvl), 2);
    lvl.rc = 1;
    EXPECT_EQ(is_err_rc(&lvl), 0);  // non-negative codes are never classified
    lvl.rc = -128;
    EXPECT_EQ(is_err_rc(&lvl), 0);
    lvl.rc = INT32_MIN;
    EXPECT_EQ(is_err_rc(&lvl), 0);
    lvl.rc = -1;
    lvl.start_opt = 0xFFFFFFFFu;
    EXPECT_EQ(is_err_rc(&lvl), 0);
    EXPECT_EQ(lvl.rc, 99);
    gvar.fst_err_rc_set = saved;
    gvar.init_mark.store(saved_mark);
}

TEST(ProcessNames, FromProcAndContainerName) {
    char proc_nm[31] = {}, cont_nm[31] = {};
    std::strcpy(init_cont_nm, "container-name-of-exactly-30ch");
    set_proc_nm(proc_nm, cont_nm, getpid());
    EXPECT_STREQ(proc_nm, "test_tran_ex");
    EXPECT_STREQ(cont_nm, "container-name-of-exactly-30ch");
    init_cont_nm[0] = '\0';
    std::strcpy(proc_nm, "unchanged");
    set_proc_nm(proc_nm, cont_nm, -5);  // no such stat file: nothing changes
    EXPECT_STREQ(proc_nm, "unchanged");
    EXPECT_STREQ(cont_nm, "container-name-of-exactly-30ch");
}

}  // namespace
}  // namespace varnix
