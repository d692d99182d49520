#include <sys/shm.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

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

// System V objects of key 0 (IPC_PRIVATE) in the system; shared-memory
// segments only when this process made them.
int private_objects() {
    int n = 0;
    for (const char* kind : {"shm", "sem", "msg"}) {
        std::ifstream in(std::string("/proc/sysvipc/") + kind);
        std::string line;
        std::getline(in, line);  // column names
        while (std::getline(in, line)) {
            std::istringstream row(line);
            long key = -1, id, perms, size, cpid = -1;
            row >> key >> id >> perms >> size >> cpid;
            n += key == 0 && (std::strcmp(kind, "shm") != 0 || cpid == getpid());
        }
    }
    return n;
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
    write_config_with("TONG_LOG_HOME", "TONG_LOG_HOME = tong");
    write_config_with("DBIO_FUNC", "DBIO_FUNC = 3 ABCDEFGHIJKLMN");
    ASSERT_EQ(tran_init(), kOk);
    kit::Collector& c = ipc.collector();
    EXPECT_EQ((std::vector{gvar.que_info_shmid, gvar.svc_hash_shmid, gvar.svc_hash_semid, gvar.ptrc_hash_shmid,
                           gvar.ptrc_hash_semid}),
              (std::vector{c.ids().que_info_shm, c.ids().svc_shm, c.ids().svc_sem, c.ids().ptrc_shm, c.ids().ptrc_sem}));
    for (int q = 0; q < VARNIX_MAX_QUE_CNT; ++q) EXPECT_EQ(gvar.msgq_id[q], q < 4 ? c.msgq_id(q) : -1) << q;
    EXPECT_EQ(gvar.msgq_key_base, ipc.default_config().keys.msgq);
    EXPECT_EQ(gvar.msgq_cnt, 4);
    // The block is the collector's: a write through the library's pointer shows there.
    *gvar.log_flag_set = 0x5A;
    EXPECT_EQ(c.que_info()->log_flag_set, 0x5A);
    EXPECT_EQ(gvar.ptrc_hash_tbl->free_stk.cnt, c.ptrc()->free_stk.cnt);

    EXPECT_EQ(std::string(log_home_dir), ipc.dir() + "/agt/log");
    EXPECT_STREQ(tong_log_home_dir, "/tong");
    EXPECT_STREQ(gvar.log_interface, "MQ");
    EXPECT_STREQ(gvar.tr_section, "A");
    EXPECT_EQ((std::vector{gvar.idle_thread_release[0], gvar.idle_thread_release[1], gvar.infinite_loop_base_cnt,
                           gvar.default_timeout_sec, gvar.dbio_func_no}),
              (std::vector{30, 60, 1000, 60, 3}));
    EXPECT_STREQ(gvar.dbio_func_nm, "ABCDEFGHIJ");
    EXPECT_EQ(gvar.pid, getpid());
    char host[65] = {};
    gethostname(host, sizeof host - 1);
    EXPECT_STREQ(gvar.host_name, host);
    EXPECT_STREQ(gvar.proc_nm, "test_tran_ex");
    EXPECT_EQ(last_log_message(), "(I) write_qidx_idx_gid_rng - (offset : 0, size 30, gid[0]~gid[29]) ");

    // A second initialization is refused, the pid refreshed all the same.
    gvar.init_mark = kInitMarkReady;
    gvar.pid = 0;
    EXPECT_EQ(tran_init(), VARNIX_RC_ALREADY_INIT);
    EXPECT_EQ(gvar.pid, getpid());
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

TEST_F(TranInit, BadConfigurationFailsWithItsMessage) {
    const std::string unused = std::to_string(ipc.default_config().keys.que_info + 7);  // never created
    char unused_hex[16];
    std::snprintf(unused_hex, sizeof unused_hex, "%x", ipc.default_config().keys.que_info + 7);
    auto missing = [](const char* key) { return std::string("<!> tran_init fail, not found section [") + key + "]"; };
    const std::string kInvalid = "invalid";  // the invalid-key line of the case's key and value
    struct Case {
        std::string key, value;
        std::string message;  // "": fails silently
        bool attaches;        // gets as far as attaching the control block
    };
    const Case cases[] = {
        // Missing keys: nothing is attached before every key has been read.
        {"TONG_LOG_HOME", "#", missing("TONG_LOG_HOME"), false},
        {"LOG_INTERFACE", "#", missing("LOG_INTERFACE"), false},
        {"TR_SECTION", "#", "", false},
        {"TRAN_LOGF_QUE_INFO_SHMKEY", "#", missing("TRAN_LOGF_QUE_INFO_SHMKEY"), false},
        {"IDLE_THREAD_RELEASE", "#", missing("IDLE_THREAD_RELEASE"), false},
        {"IDLE_THREAD_RELEASE", "30", missing("IDLE_THREAD_RELEASE"), false},
        {"INFINITE_LOOP_BASE_CNT", "#", missing("INFINITE_LOOP_BASE_CNT"), false},
        {"MAX_QUE_CNT", "#", missing("MAX_QUE_CNT"), false},
        {"SVC_HASH_TBL_SHMKEY", "#", "", false},
        {"SVC_HASH_TBL_SEMKEY", "#", "", false},
        {"PTRC_HASH_TBL_SHMKEY", "#", "", false},
        {"PTRC_HASH_TBL_SEMKEY", "#", "", false},
        {"WRITE_QUE_IDX_GID_RNG", "#", missing("WRITE_QUE_IDX_GID_RNG"), false},
        {"TRAN_LOGF_MSGQKEY", "#", missing("TRAN_LOGF_MSGQKEY"), false},
        {"TRAN_LOGF_MSGQKEY", "", missing("TRAN_LOGF_MSGQKEY"), false},
        {"DBIO_FUNC", "#", missing("DBIO_FUNC"), false},
        {"DEFAULT_TIMEOUT_SEC", "#", missing("DEFAULT_TIMEOUT_SEC"), false},
        // Out-of-range values.
        {"MAX_QUE_CNT", "17", "<!> tran_init fail, MAX_QUE_CNT(17) out of range (1..16)", false},
        {"MAX_QUE_CNT", "0", "<!> tran_init fail, MAX_QUE_CNT(0) out of range (1..16)", false},
        {"WRITE_QUE_IDX_GID_RNG", "20 13",
         "<!> tran_init fail, WRITE_QUE_IDX_GID_RNG out of the GID (offset : 20, size 13)", false},
        // Keys that are no decimal number, or read as 0 (a private object
        // per attempt), or whose queue keys would reach 0 or overflow.
        {"PTRC_HASH_TBL_SHMKEY", "0", kInvalid, false},
        {"TRAN_LOGF_QUE_INFO_SHMKEY", "0x40001234", kInvalid, false},
        {"SVC_HASH_TBL_SEMKEY", "12abc", kInvalid, false},
        {"SVC_HASH_TBL_SHMKEY", "-0", kInvalid, false},
        {"PTRC_HASH_TBL_SEMKEY", "+5", kInvalid, false},
        {"TRAN_LOGF_MSGQKEY", "-3", kInvalid, false},
        {"TRAN_LOGF_MSGQKEY", "2147483646", kInvalid, false},
        {"TRAN_LOGF_QUE_INFO_SHMKEY", "4294967296", kInvalid, false},
        // Objects the collector has not created.
        {"TRAN_LOGF_QUE_INFO_SHMKEY", unused,
         "<!> tran_init fail, shared-memory initialize [TRAN_LOGF_QUE_INFO], errno : 2", false},
        {"SVC_HASH_TBL_SEMKEY", unused, "<!> svc_hash_tbl semaphore create error.[key:0x" + std::string(unused_hex) + "]",
         true},
        {"SVC_HASH_TBL_SHMKEY", unused, "<!> tran_init fail, shared-memory initialize [SVC_HASH_TBL] ( 1862160 bytes)",
         true},
        {"PTRC_HASH_TBL_SHMKEY", unused,
         "<!> tran_init fail, shared-memory initialize [PTRC_HASH_TBL] ( 603782160 bytes)", true},
        {"MAX_QUE_CNT", "5", "<!> create fail msgq#04", true},
    };
    const int private_before = private_objects();
    for (const Case& c : cases) {
        write_config_with(c.key, c.value == "#" ? "#" + c.key : c.key + " = " + c.value);
        log_printf("marker");
        ::testing::internal::CaptureStderr();
        EXPECT_EQ(tran_init(), VARNIX_RC_NOT_INIT) << c.key << " = " << c.value;
        ::testing::internal::GetCapturedStderr();
        std::string expected = c.message.empty() ? "marker" : c.message;
        if (c.message == kInvalid) expected = "<!> tran_init fail, invalid IPC key [" + c.key + "] : " + c.value;
        EXPECT_EQ(last_log_message(), expected) << c.key << " = " << c.value;
        EXPECT_EQ(gvar.que_info != nullptr, c.attaches) << c.key << " = " << c.value;
        detach_gvar();
        ipc.reset();
    }
    EXPECT_EQ(private_objects(), private_before);
}

TEST_F(TranInit, CheckGvarFollowsTheControlBlock) {
    ASSERT_EQ(tran_init(), kOk);
    TRAN_LOGF_QUE_INFO& q = ipc.que_info();
    EXPECT_EQ(check_gvar('1'), VARNIX_RC_NOT_INIT);  // tran_init alone does not mark the library ready
    gvar.init_mark = kInitMarkFailed;
    EXPECT_EQ(check_gvar('1'), VARNIX_RC_NOT_INIT);
    gvar.init_mark = kInitMarkReady;

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
    EXPECT_EQ(check_gvar('1'), kOk);
}

TEST(FlagEncoders, LogFlagSetLettersAndReturnCodeVerdicts) {
    EXPECT_EQ(get_log_flag_set("SEQ"), 0x83);
    EXPECT_EQ(get_log_flag_set("SEVBCIXQ"), 0xFF);
    EXPECT_EQ(get_log_flag_set("sq"), 0);
    EXPECT_EQ(get_log_flag_set(nullptr), 0);
    EXPECT_EQ(get_log_flag_set("S,E V"), 0x07);

    int8_t table[128] = {};
    EXPECT_EQ(apply_fst_err_rc(table, "-100,2"), 0);
    EXPECT_EQ(table[100], 2);
    EXPECT_EQ(apply_fst_err_rc(table, "7,1"), 0);
    EXPECT_EQ(table[7], 1);
    // Codes beyond any table entry, however long, are refused, never indexed.
    for (const char* bad : {"-1403,1", "5,12", "5,3", ",1", "5", "5,", "5,x", "129,1", "-129,1",
                            "-99999999999999999999999,1"})
        EXPECT_EQ(apply_fst_err_rc(table, bad), -1) << bad;
    EXPECT_EQ(table[5], 0);
    EXPECT_EQ(apply_fst_err_rc(table, "-0000000000000000000000000000000000000000006,1"), 0);  // read whole
    EXPECT_EQ(table[6], 1);
    EXPECT_EQ(apply_fst_err_rc(table, "128,1"), 0);
    for (int8_t v : table) EXPECT_EQ(v, 1);

    // The exported encoder works on the attached control block, and refuses without one.
    const int32_t saved_mark = gvar.init_mark.load();
    int8_t* saved = gvar.fst_err_rc_set;
    gvar.fst_err_rc_set = table;
    gvar.init_mark.store(0);
    EXPECT_EQ(set_fst_err_rc_set("-1,2"), -1);
    gvar.init_mark.store(kInitMarkReady);
    EXPECT_EQ(set_fst_err_rc_set("-1,2"), 0);
    EXPECT_EQ(table[1], 2);

    // Classifying a finished call: only negative codes down to -127.
    CALL_LVL lvl{};
    for (int32_t rc : {1, -128, INT32_MIN}) {
        lvl.rc = rc;
        EXPECT_EQ(is_err_rc(&lvl), 0) << rc;
    }
    lvl.rc = -1;
    EXPECT_EQ(is_err_rc(&lvl), 2);
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
