// Process block and initialization.
//
// `gvar` is written by tran_init and teardown, which the process lock of
// TRAN_INIT/TRAN_DONE serializes, and its attachments also when the collector
// creates its objects anew (core/reattach.cpp).  Application threads read it
// without a lock: init_mark (acquire) tells them whether the rest is ready,
// and the fields of the shared control block are read relaxed on every call
// because the collector process may change them at any time.
#include <sys/ipc.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <limits>
#include <span>

#include "core/copy_prefix.h"
#include "core/encoding_util.h"
#include "core/entry_gate.h"
#include "core/gvar.h"
#include "core/ipc.h"
#include "core/log_printf.h"
#include "core/mutex.h"
#include "core/readcfg.h"
#include "core/reattach.h"
#include "core/record_class.h"
#include "core/status.h"
#include "varnix.h"

extern "C" {
char log_home_dir[512];
char tong_log_home_dir[512];
int32_t jni_init_flag;
char init_cont_nm[31];
char init_db_user[11];
char init_db_sid[11];
}

namespace varnix {

Gvar gvar;
int32_t write_qidx_idx_gid_rng_pos;
int32_t write_qidx_idx_gid_rng_siz;

namespace {

constexpr int kGidWidth = 32;

const char* cfg_path;  // TRAN_AGT_CFG_FILE of the running tran_init

struct Token {
    char text[kCfgTokenMax + 1];
    long num() const { return std::strtol(text, nullptr, 10); }
};

// Token n of a key; a missing key is reported unless it is one of the keys
// whose absence fails initialization silently.
bool read_key(const char* section, const char* key, int n, Token& out, bool report = true) {
    if (get_nth_token_in_file_section(cfg_path, section, key, n, out.text) == 1) return true;
    if (report) log_printf("<!> tran_init fail, not found section [%s]", key);
    return false;
}

// An IPC key is a decimal number that fits key_t and is not 0.  Key 0 is
// IPC_PRIVATE, for which the system makes a new private object on every
// attempt instead of finding the collector's, and a decimal reading turns hex
// text into 0 or into a stranger's key.
bool parse_ipc_key(const char* text, long& key) {
    const char* digits = text[0] == '-' ? text + 1 : text;
    if (digits[0] == '\0' || digits[std::strspn(digits, "0123456789")] != '\0') return false;
    errno = 0;
    key = std::strtol(text, nullptr, 10);
    return errno == 0 && key != 0 && key >= std::numeric_limits<key_t>::min() &&
           key <= std::numeric_limits<key_t>::max();
}

// Token 1 of an IPC key; `count` keys from it on (queues) must all be valid.
bool read_ipc_key(const char* section, const char* name, bool report, key_t& out, int count = 1) {
    Token t{};
    if (!read_key(section, name, 1, t, report)) return false;
    long key = 0;
    if (parse_ipc_key(t.text, key)) {
        const long last = key + count - 1;
        if ((key > 0 || last < 0) && last <= std::numeric_limits<key_t>::max()) {
            out = static_cast<key_t>(key);
            return true;
        }
    }
    log_printf("<!> tran_init fail, invalid IPC key [%s] : %s", name, t.text);
    return false;
}

void point_at_que_info(TRAN_LOGF_QUE_INFO* q) {
    gvar.que_info = q;
    gvar.qcnt = &q->qcnt;
    gvar.que_mask = &q->que_mask;
    gvar.magic_code = &q->magic_code;
    gvar.log_flag_set = &q->log_flag_set;
    gvar.fst_err_rc_set = q->fst_err_rc_set;
    gvar.call_trc_depth = &q->call_trc_depth;
    gvar.call_trc_limit = &q->call_trc_limit;
    gvar.dbio_trc_limit = &q->dbio_trc_limit;
    gvar.sql_trc_limit = &q->sql_trc_limit;
    gvar.tong_log_flag = &q->tong_log_flag;
    gvar.msgq_fail_cnt = q->msgq_fail_cnt;
    gvar.svc_filtering = &q->svc_filtering;
}

int attach_que_info(key_t key) {
    int id = find_shm(key, sizeof(TRAN_LOGF_QUE_INFO));
    if (id < 0) {
        log_printf("<!> tran_init fail, shared-memory initialize [TRAN_LOGF_QUE_INFO], errno : %d", errno);
        return VARNIX_RC_NOT_INIT;
    }
    void* addr = shmat(id, nullptr, 0);
    if (addr == reinterpret_cast<void*>(-1)) {
        int err = errno;
        log_printf("<!> tran_init fail, shared-memory attach [TRAN_LOGF_QUE_INFO], errno(%d) : %s", err,
                   std::strerror(err));
        return VARNIX_RC_NOT_INIT;
    }
    gvar.que_info_shmid = id;
    point_at_que_info(static_cast<TRAN_LOGF_QUE_INFO*>(addr));
    gvar.svctimeout_mark.store(0, std::memory_order_relaxed);
    return kOk;
}

// A shared table with its semaphore: the keys, the diagnostics' names and
// where the ids and the attach address go.
struct SharedTable {
    key_t shm_key;
    key_t sem_key;
    const char* name;      // for the shared-memory messages
    const char* sem_name;  // for the semaphore message
    size_t size;
    int32_t* shmid;
    int32_t* semid;
    void** addr;
};

int attach_table(const SharedTable& t) {
    int semid = create_sem(t.sem_key, 1);
    if (semid < 0) {
        log_printf("<!> %s semaphore create error.[key:0x%x]", t.sem_name, static_cast<unsigned>(t.sem_key));
        return VARNIX_RC_NOT_INIT;
    }
    *t.semid = semid;
    int size = static_cast<int>(t.size);
    int shmid = find_shm(t.shm_key, t.size);
    if (shmid < 0) {
        log_printf("<!> tran_init fail, shared-memory initialize [%s] ( %d bytes)", t.name, size);
        return VARNIX_RC_NOT_INIT;
    }
    void* addr = shmat(shmid, nullptr, 0);
    if (addr == reinterpret_cast<void*>(-1)) {
        int err = errno;
        log_printf("<!> tran_init fail, shared-memory attach [%s]( %d bytes), errno(%d) : %s", t.name, size, err,
                   std::strerror(err));
        return VARNIX_RC_NOT_INIT;
    }
    *t.shmid = shmid;
    *t.addr = addr;
    return kOk;
}

// The ids are read by every sending thread, which may also replace one when
// the collector re-creates its queue (send_to_queue).
int attach_queues(key_t base, int count) {
    gvar.msgq_key_base = base;
    for (int i = 0; i < count; ++i) {
        int id = create_msgq(base + i);
        if (id < 0) {
            log_printf("<!> create fail msgq#%02d", i);
            return VARNIX_RC_NOT_INIT;
        }
        __atomic_store_n(&gvar.msgq_id[i], id, __ATOMIC_RELAXED);
    }
    __atomic_store_n(&gvar.msgq_cnt, count, __ATOMIC_RELAXED);
    return kOk;
}

void open_diag_log(const char* agt_home, const char* value) {
    if (value[0] == '/')
        std::snprintf(log_home_dir, sizeof log_home_dir, "%s", value);
    else
        std::snprintf(log_home_dir, sizeof log_home_dir, "%s/%s", agt_home, value);
    char dir[sizeof log_home_dir + 32];
    std::snprintf(dir, sizeof dir, "%s/proc/%s", log_home_dir, "libvarnix");
    open_log(dir, "libvarnix", 0);
}

// Keys 1 to 8: log homes, interface, control block, thread and loop settings,
// number of queues.
int read_process_keys(const char* agt_home, int& max_que_cnt, key_t& que_info_key) {
    Token t{}, t2{};
    if (!read_key("COMMON", "LOG_HOME", 1, t)) return VARNIX_RC_NOT_INIT;
    open_diag_log(agt_home, t.text);
    if (!read_key("COMMON", "TONG_LOG_HOME", 1, t)) return VARNIX_RC_NOT_INIT;
    std::snprintf(tong_log_home_dir, sizeof tong_log_home_dir, t.text[0] == '/' ? "%s" : "/%s", t.text);
    if (!read_key("TRAN_LOGF", "LOG_INTERFACE", 1, t)) return VARNIX_RC_NOT_INIT;
    copy_prefix(gvar.log_interface, t.text, 2);
    if (!read_key("TRAN_LOGF", "TR_SECTION", 1, t, false)) return VARNIX_RC_NOT_INIT;
    copy_prefix(gvar.tr_section, t.text, 1);
    if (!read_ipc_key("IPC_SHARED_MEMORY", "TRAN_LOGF_QUE_INFO_SHMKEY", true, que_info_key))
        return VARNIX_RC_NOT_INIT;
    if (!read_key("TRAN_LOGF", "IDLE_THREAD_RELEASE", 1, t)) return VARNIX_RC_NOT_INIT;
    gvar.idle_thread_release[0] = static_cast<int32_t>(t.num());
    if (!read_key("TRAN_LOGF", "IDLE_THREAD_RELEASE", 2, t2)) return VARNIX_RC_NOT_INIT;
    gvar.idle_thread_release[1] = static_cast<int32_t>(t2.num());
    if (!read_key("TRAN_LOGF", "INFINITE_LOOP_BASE_CNT", 1, t)) return VARNIX_RC_NOT_INIT;
    gvar.infinite_loop_base_cnt = static_cast<int32_t>(t.num());
    if (!read_key("TRAN_LOGF", "MAX_QUE_CNT", 1, t)) return VARNIX_RC_NOT_INIT;
    max_que_cnt = static_cast<int>(t.num());
    if (max_que_cnt < 1 || max_que_cnt > VARNIX_MAX_QUE_CNT) {
        log_printf("<!> tran_init fail, MAX_QUE_CNT(%d) out of range (1..%d)", max_que_cnt, VARNIX_MAX_QUE_CNT);
        return VARNIX_RC_NOT_INIT;
    }
    return kOk;
}

// Key 13: the GID slice that picks a record's queue.  It must lie inside the
// 32-byte GID field, or the hash would read past the record.
int read_gid_range() {
    Token pos{}, siz{};
    if (!read_key("TRAN_LOGF", "WRITE_QUE_IDX_GID_RNG", 1, pos) ||
        !read_key("TRAN_LOGF", "WRITE_QUE_IDX_GID_RNG", 2, siz))
        return VARNIX_RC_NOT_INIT;
    long p = pos.num(), s = siz.num();
    if (p < 0 || s < 0 || p + s > kGidWidth) {
        log_printf("<!> tran_init fail, WRITE_QUE_IDX_GID_RNG out of the GID (offset : %ld, size %ld)", p, s);
        return VARNIX_RC_NOT_INIT;
    }
    write_qidx_idx_gid_rng_pos = static_cast<int32_t>(p);
    write_qidx_idx_gid_rng_siz = static_cast<int32_t>(s);
    log_printf("(I) write_qidx_idx_gid_rng - (offset : %d, size %d, gid[%d]~gid[%d]) ", write_qidx_idx_gid_rng_pos,
               write_qidx_idx_gid_rng_siz, write_qidx_idx_gid_rng_pos,
               write_qidx_idx_gid_rng_pos + write_qidx_idx_gid_rng_siz - 1);
    return kOk;
}

// Keys 15 and 16: the DBIO function signature and the abandoned-service time.
int read_service_keys() {
    Token no{}, nm{}, t{};
    if (!read_key("DATA_SIGNATURE", "DBIO_FUNC", 1, no)) return VARNIX_RC_NOT_INIT;
    gvar.dbio_func_no = static_cast<int32_t>(no.num());
    if (!read_key("DATA_SIGNATURE", "DBIO_FUNC", 2, nm)) return VARNIX_RC_NOT_INIT;
    std::memset(gvar.dbio_func_nm, 0, sizeof gvar.dbio_func_nm);
    copy_prefix(gvar.dbio_func_nm, nm.text, 10);
    gvar.dbio_signature = compile_dbio_signature(gvar.dbio_func_no, gvar.dbio_func_nm);
    if (!read_key("SERVICE_HASH", "DEFAULT_TIMEOUT_SEC", 1, t)) return VARNIX_RC_NOT_INIT;
    gvar.default_timeout_sec = static_cast<int32_t>(t.num());
    return kOk;
}

// Every key is read and checked before anything is attached, so that a bad
// configuration attaches nothing (and, with a private key, creates nothing).
int read_keys(const char* agt_home, int& max_que_cnt, IpcKeys& keys) {
    if (int rc = read_process_keys(agt_home, max_que_cnt, keys.que_info); rc != kOk) return rc;
    if (!read_ipc_key("IPC_SHARED_MEMORY", "SVC_HASH_TBL_SHMKEY", false, keys.svc_shm) ||
        !read_ipc_key("IPC_SEMAPHORE", "SVC_HASH_TBL_SEMKEY", false, keys.svc_sem) ||
        !read_ipc_key("IPC_SHARED_MEMORY", "PTRC_HASH_TBL_SHMKEY", false, keys.ptrc_shm) ||
        !read_ipc_key("IPC_SEMAPHORE", "PTRC_HASH_TBL_SEMKEY", false, keys.ptrc_sem))
        return VARNIX_RC_NOT_INIT;
    if (int rc = read_gid_range(); rc != kOk) return rc;
    if (!read_ipc_key("IPC_MESSAGE_QUE", "TRAN_LOGF_MSGQKEY", true, keys.msgq, max_que_cnt))
        return VARNIX_RC_NOT_INIT;
    return read_service_keys();
}

int attach_all(const IpcKeys& keys, int max_que_cnt) {
    if (int rc = attach_que_info(keys.que_info); rc != kOk) return rc;
    SharedTable svc{keys.svc_shm, keys.svc_sem, "SVC_HASH_TBL", "svc_hash_tbl", sizeof(SVC_HASH_TBL),
                    &gvar.svc_hash_shmid, &gvar.svc_hash_semid, reinterpret_cast<void**>(&gvar.svc_hash_tbl)};
    if (int rc = attach_table(svc); rc != kOk) return rc;
    SharedTable ptrc{keys.ptrc_shm, keys.ptrc_sem, "PTRC_HASH_TBL", "ptrc_hash_tbl", sizeof(PTRC_HASH_TBL),
                     &gvar.ptrc_hash_shmid, &gvar.ptrc_hash_semid, reinterpret_cast<void**>(&gvar.ptrc_hash_tbl)};
    if (int rc = attach_table(ptrc); rc != kOk) return rc;
    note_attachments(keys);
    return attach_queues(keys.msgq, max_que_cnt);
}

}  // namespace

int tran_init() {
    gvar.pid = getpid();
    set_proc_nm(gvar.proc_nm, gvar.cont_nm, gvar.pid);
    if (gvar.init_mark.load(std::memory_order_relaxed) == kInitMarkReady) {
        log_printf("<!> already TRAN_INIT API initialized.");
        return VARNIX_RC_ALREADY_INIT;
    }
    static constexpr const char* kEnv[] = {"TRAN_HOME", "TRAN_AGT_HOME", "TRAN_AGT_CFG_FILE"};
    for (const char* name : kEnv) {
        if (!std::getenv(name)) {
            log_printf("<!> please, check environment-variable (%s)", name);
            return VARNIX_RC_NO_ENV;
        }
    }
    cfg_path = std::getenv("TRAN_AGT_CFG_FILE");
    gvar.dbio_func_no = -1;
    gvar.dbio_signature = {};
    // Queues that are not attached must refuse records, never reach a
    // stranger's queue: id 0 is a valid id.
    __atomic_store_n(&gvar.msgq_cnt, 0, __ATOMIC_RELAXED);
    for (int32_t& id : gvar.msgq_id) __atomic_store_n(&id, -1, __ATOMIC_RELAXED);
    int max_que_cnt = 0;
    IpcKeys keys{};
    if (int rc = read_keys(std::getenv("TRAN_AGT_HOME"), max_que_cnt, keys); rc != kOk) return rc;
    if (int rc = attach_all(keys, max_que_cnt); rc != kOk) return rc;
    if (gethostname(gvar.host_name, sizeof gvar.host_name) != 0) {
        log_printf("<!> tran_init fail, gethostname() error");
        return VARNIX_RC_NOT_INIT;
    }
    gvar.host_name[sizeof gvar.host_name - 1] = '\0';
    return kOk;
}

void set_proc_nm(char (&proc_nm)[31], char (&cont_nm)[31], int pid) {
    char path[128];
    std::snprintf(path, sizeof path, "/proc/%d/stat", pid);
    std::FILE* fp = std::fopen(path, "r");
    if (!fp) return;
    long id = 0;
    char state = 0;
    // A partial match changes only what it matched: any count will do.
    [[maybe_unused]] const int matched = std::fscanf(fp, "%ld (%30[^)]) %c", &id, proc_nm, &state);
    copy_prefix(cont_nm, init_cont_nm, 30);
    std::fclose(fp);
}

int apply_fst_err_rc(std::span<int8_t, 128> table, const char* rule) {
    const char* comma = rule ? std::strchr(rule, ',') : nullptr;
    if (!comma || comma == rule) return -1;
    // strtol stops at the comma and saturates, so no magnitude below can
    // overflow; anything beyond -128..128 is refused before indexing.
    long code = std::strtol(rule, nullptr, 10);
    const char* verdict = comma + 1;
    if (verdict[0] < '0' || verdict[0] > '9' || verdict[1] != '\0') return -1;
    int v = verdict[0] - '0';
    if (v > 2 || code >= 129 || code <= -129) return -1;
    long magnitude = code < 0 ? -code : code;
    if (magnitude <= 127) {
        table[magnitude] = static_cast<int8_t>(v);
        return 0;
    }
    for (int8_t& e : table) e = static_cast<int8_t>(v);  // magnitude 128: every entry
    return 0;
}

}  // namespace varnix

using namespace varnix;

extern "C" {

uint8_t get_log_flag_set(const char* letters) {
    uint8_t set = 0;
    for (const char* p = letters; p && *p; ++p) set |= letter_bit(*p);
    return set;
}

int set_fst_err_rc_set(const char* rule) {
    const EntryGate gate;
    if (gvar.init_mark.load() != kInitMarkReady || !gvar.fst_err_rc_set) return -1;
    return apply_fst_err_rc(std::span<int8_t, 128>(gvar.fst_err_rc_set, 128), rule);
}

int read_config(void) {
    static pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
    static std::time_t last_look, seen_mtime, cur_mtime;
    MutexGuard guard(lock);
    std::time_t now = std::time(nullptr);
    if (now - last_look < 60) return 0;
    const bool first_look = last_look == 0;
    last_look = now;
    const char* path = std::getenv("TRAN_AGT_CFG_FILE");
    struct stat st {};
    if (!path || stat(path, &st) != 0) return 0;
    if (first_look) cur_mtime = st.st_mtime;
    seen_mtime = st.st_mtime;
    if (seen_mtime == cur_mtime) return 0;
    log_printf("@@@ Config-File 수정 확인\n");
    cur_mtime = seen_mtime;
    return 1;
}

}  // extern "C"
