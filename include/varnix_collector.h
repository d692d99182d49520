/*
 * libvarnix: what the collector side shares with the library.
 *
 * The collector agent creates and fills three System V shared-memory blocks
 * (TRAN_LOGF_QUE_INFO, PTRC_HASH_TBL, SVC_HASH_TBL), two semaphores and up to
 * 16 message queues; traced processes attach to them.  The byte layouts below
 * are fixed: every offset and size is pinned at compile time, in C and in C++.
 * Native byte order, x86-64 alignment.
 */
#ifndef VARNIX_COLLECTOR_H
#define VARNIX_COLLECTOR_H

#include <stddef.h>
#include <stdint.h>
#include <sys/time.h>
#include <sys/types.h>

#ifndef VARNIX_API
#define VARNIX_API __attribute__((visibility("default")))
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* VARNIX_LAYOUT_CHECK(cond, what): a compile-time check of the layouts below.
 * C99 has no static assertion: there a false condition declares an array of
 * negative size, named after the line, which every compiler rejects. */
#if defined(__cplusplus)
#define VARNIX_LAYOUT_CHECK(cond, what) static_assert(cond, what)
#elif defined(__STDC_VERSION__) && __STDC_VERSION__ >= 201112L
#define VARNIX_LAYOUT_CHECK(cond, what) _Static_assert(cond, what)
#else
#define VARNIX_LAYOUT_NAME_(line) varnix_layout_check_##line
#define VARNIX_LAYOUT_NAME(line) VARNIX_LAYOUT_NAME_(line)
#define VARNIX_LAYOUT_CHECK(cond, what) typedef char VARNIX_LAYOUT_NAME(__LINE__)[(cond) ? 1 : -1]
#endif

/* ---- Shared control block ------------------------------------------------ */

#define VARNIX_MAGIC_CODE 0xAAAAAAAAu
#define VARNIX_MAX_QUE_CNT 16

/* log_flag_set bits: the record classes the collector switches on. */
#define VARNIX_FLAG_S 0x01u /* '1' service start, '2' service end */
#define VARNIX_FLAG_E 0x02u /* '9' service error, 'E' error information */
#define VARNIX_FLAG_V 0x04u /* 'V' event */
#define VARNIX_FLAG_B 0x08u /* 'B' DBIO call */
#define VARNIX_FLAG_C 0x10u /* 'C' BIZCALL */
#define VARNIX_FLAG_I 0x20u /* 'I' information */
#define VARNIX_FLAG_X 0x40u /* 'X' extended information */
#define VARNIX_FLAG_Q 0x80u /* 'Q' SQL text */

typedef struct TRAN_LOGF_QUE_INFO {
    int32_t qcnt;               /* queues in use, 1..16 */
    uint32_t que_mask;          /* qcnt - 1 */
    uint32_t magic_code;        /* VARNIX_MAGIC_CODE */
    uint8_t log_flag_set;       /* VARNIX_FLAG_* */
    int8_t fst_err_rc_set[128]; /* verdict 0, 1 or 2 per return-code magnitude */
    char reserved1[3];
    int32_t call_trc_depth;
    char reserved2[4];
    int64_t call_trc_limit;
    int64_t dbio_trc_limit;
    int64_t sql_trc_limit;
    uint8_t svc_filtering;
    char reserved3;
    char tong_log_flag;         /* '1' = full-message capture on */
    char reserved4;
    uint32_t msgq_fail_cnt[VARNIX_MAX_QUE_CNT];
    char reserved5[4];
} TRAN_LOGF_QUE_INFO;

VARNIX_LAYOUT_CHECK(offsetof(TRAN_LOGF_QUE_INFO, que_mask) == 4, "que_mask");
VARNIX_LAYOUT_CHECK(offsetof(TRAN_LOGF_QUE_INFO, magic_code) == 8, "magic_code");
VARNIX_LAYOUT_CHECK(offsetof(TRAN_LOGF_QUE_INFO, log_flag_set) == 12, "log_flag_set");
VARNIX_LAYOUT_CHECK(offsetof(TRAN_LOGF_QUE_INFO, fst_err_rc_set) == 13, "fst_err_rc_set");
VARNIX_LAYOUT_CHECK(offsetof(TRAN_LOGF_QUE_INFO, call_trc_depth) == 144, "call_trc_depth");
VARNIX_LAYOUT_CHECK(offsetof(TRAN_LOGF_QUE_INFO, call_trc_limit) == 152, "call_trc_limit");
VARNIX_LAYOUT_CHECK(offsetof(TRAN_LOGF_QUE_INFO, dbio_trc_limit) == 160, "dbio_trc_limit");
VARNIX_LAYOUT_CHECK(offsetof(TRAN_LOGF_QUE_INFO, sql_trc_limit) == 168, "sql_trc_limit");
VARNIX_LAYOUT_CHECK(offsetof(TRAN_LOGF_QUE_INFO, svc_filtering) == 176, "svc_filtering");
VARNIX_LAYOUT_CHECK(offsetof(TRAN_LOGF_QUE_INFO, tong_log_flag) == 178, "tong_log_flag");
VARNIX_LAYOUT_CHECK(offsetof(TRAN_LOGF_QUE_INFO, msgq_fail_cnt) == 180, "msgq_fail_cnt");
VARNIX_LAYOUT_CHECK(sizeof(TRAN_LOGF_QUE_INFO) == 248, "TRAN_LOGF_QUE_INFO size");

/* ---- Index stacks (u32 count, then entry numbers) ------------------------ */

#define VARNIX_HASH_BUCKETS 65536
#define VARNIX_TBL_ENTRIES 10000

typedef struct HASH_IDX_STK {
    uint32_t cnt;
    uint32_t idx[VARNIX_TBL_ENTRIES];
} HASH_IDX_STK;

VARNIX_LAYOUT_CHECK(sizeof(HASH_IDX_STK) == 40004, "HASH_IDX_STK size");

/* The large index stack of the collector side; the library never uses one. */
#define VARNIX_JCACHE_ENTRIES 2000000

typedef struct JCACHE_IDX_STK {
    uint32_t cnt;
    uint32_t idx[VARNIX_JCACHE_ENTRIES];
} JCACHE_IDX_STK;

VARNIX_LAYOUT_CHECK(sizeof(JCACHE_IDX_STK) == 8000004, "JCACHE_IDX_STK size");

/* ---- Process-thread table ------------------------------------------------ */

/* One traced call level: level i describes the i-th open traced call. */
typedef struct CALL_LVL {
    struct timeval start_tv;
    struct timeval end_tv;
    char call_kind;          /* 'B' DBIO or 'C' BIZCALL */
    char reserved1[3];
    int32_t call_seq;
    char func_nm[71];
    char module_nm[71];
    char source_nm[102];
    int32_t line_no;
    uint32_t start_opt;      /* 0xFFFFFFFF forces return code 99 at finish */
    int32_t rc;
    int32_t force_rec;
    char reserved2[4];
    int64_t elapsed_sum;
    int64_t dbio_sum;
} CALL_LVL;

VARNIX_LAYOUT_CHECK(offsetof(CALL_LVL, end_tv) == 16, "end_tv");
VARNIX_LAYOUT_CHECK(offsetof(CALL_LVL, call_kind) == 32, "call_kind");
VARNIX_LAYOUT_CHECK(offsetof(CALL_LVL, call_seq) == 36, "call_seq");
VARNIX_LAYOUT_CHECK(offsetof(CALL_LVL, func_nm) == 40, "func_nm");
VARNIX_LAYOUT_CHECK(offsetof(CALL_LVL, module_nm) == 111, "module_nm");
VARNIX_LAYOUT_CHECK(offsetof(CALL_LVL, source_nm) == 182, "source_nm");
VARNIX_LAYOUT_CHECK(offsetof(CALL_LVL, line_no) == 284, "line_no");
VARNIX_LAYOUT_CHECK(offsetof(CALL_LVL, start_opt) == 288, "start_opt");
VARNIX_LAYOUT_CHECK(offsetof(CALL_LVL, rc) == 292, "rc");
VARNIX_LAYOUT_CHECK(offsetof(CALL_LVL, force_rec) == 296, "force_rec");
VARNIX_LAYOUT_CHECK(offsetof(CALL_LVL, elapsed_sum) == 304, "elapsed_sum");
VARNIX_LAYOUT_CHECK(offsetof(CALL_LVL, dbio_sum) == 312, "dbio_sum");
VARNIX_LAYOUT_CHECK(sizeof(CALL_LVL) == 320, "CALL_LVL size");

/* One SQL statement kept for the current DBIO call. */
typedef struct SQL_SLOT {
    char reserved1[200];
    uint16_t sql_len;
    uint16_t sql_no;
    char reserved2[4];
    struct timeval start_tv;
    struct timeval end_tv;
    char func_nm[70];
    char func_nm_end;
    char sql_text[8193];
    uint32_t rep_cnt;
    char reserved3[4];
} SQL_SLOT;

VARNIX_LAYOUT_CHECK(offsetof(SQL_SLOT, sql_len) == 200, "sql_len");
VARNIX_LAYOUT_CHECK(offsetof(SQL_SLOT, sql_no) == 202, "sql_no");
VARNIX_LAYOUT_CHECK(offsetof(SQL_SLOT, start_tv) == 208, "start_tv");
VARNIX_LAYOUT_CHECK(offsetof(SQL_SLOT, end_tv) == 224, "end_tv");
VARNIX_LAYOUT_CHECK(offsetof(SQL_SLOT, func_nm) == 240, "func_nm");
VARNIX_LAYOUT_CHECK(offsetof(SQL_SLOT, func_nm_end) == 310, "func_nm_end");
VARNIX_LAYOUT_CHECK(offsetof(SQL_SLOT, sql_text) == 311, "sql_text");
VARNIX_LAYOUT_CHECK(offsetof(SQL_SLOT, rep_cnt) == 8504, "rep_cnt");
VARNIX_LAYOUT_CHECK(sizeof(SQL_SLOT) == 8512, "SQL_SLOT size");

/* Service identity of one nesting level, as the collector sees it. */
typedef struct PTRC_SVC_LVL {
    char gid[32];
    char reserved1;
    char svc_id[16];
    char reserved2[14];
} PTRC_SVC_LVL;

VARNIX_LAYOUT_CHECK(offsetof(PTRC_SVC_LVL, svc_id) == 33, "svc_id");
VARNIX_LAYOUT_CHECK(sizeof(PTRC_SVC_LVL) == 63, "PTRC_SVC_LVL size");

#define VARNIX_SVC_DEPTH_MAX 10
#define VARNIX_CALL_LVL_CNT 51
#define VARNIX_SQL_SLOT_CNT 5

/* ptrc_state values */
#define VARNIX_PTRC_REGISTERED 1
#define VARNIX_PTRC_RELEASE_ASKED 2 /* set by the collector */
#define VARNIX_PTRC_RELEASED 3

/* One traced thread of one process. */
typedef struct PTRC_HASH {
    uint32_t pidx;
    uint32_t hidx;
    int32_t prev;
    int32_t next;
    char main_gid[32];
    char reserved1;
    char main_svc_id[16];
    char reserved2;
    char main_recv_svc_cd[12];
    char reserved3;
    PTRC_SVC_LVL svc_stack[VARNIX_SVC_DEPTH_MAX];
    int8_t service_depth;
    char chnl_class;
    char saved_svc_state;
    char reg_flag;              /* '1' once registered */
    char err_rc_marked;
    char svctimeout_flag;
    uint8_t dbio_sts;
    char reserved4[2];
    char proc_nm[31];
    char cont_nm[31];
    char key_pid[8];
    char reserved5;
    char key_tid[15];
    char reserved6;
    char key_idx[5];
    char reserved7[2];
    int32_t pid;
    uint64_t tid;
    char snapshot_state;
    char snapshot_tr_cd[15];
    int64_t snapshot_aux;
    struct timeval preset_start_tv;
    struct timeval svc_start_tv;
    struct timeval svc_end_tv;
    char svc_state;
    uint8_t ptrc_state;
    int8_t trc_lvl;
    int8_t last_fin_lvl;
    int8_t call_trc_depth_max;
    char reserved8[3];
    int32_t call_trc_depth;
    int32_t total_call_cnt;
    uint8_t qidx;               /* queue that carried the thread's last record */
    char reserved9[2];
    char dbio_skip;
    char reserved10[4];
    int64_t call_trc_limit;
    int64_t dbio_trc_limit;
    int64_t sql_trc_limit;
    CALL_LVL call_lvl[VARNIX_CALL_LVL_CNT];
    int64_t call_elapsed_sum;
    int32_t sql_rec_cnt;
    char reserved11[4];
    SQL_SLOT sql_slot[VARNIX_SQL_SLOT_CNT];
    char sql_id[200];
    char reserved12[136];
    int64_t sql_code;
    char sql_err_msg[101];
    char reserved13[3];
    int32_t fetch_last[3];      /* rows, time (us), line */
    int32_t fetch_cnt;
    int32_t fetch_rows_sum;
    int32_t fetch_time_sum;
    char db_user[11];
    char db_sid[11];
    char reserved14[2];
    int64_t svc_mark_time;
} PTRC_HASH;

VARNIX_LAYOUT_CHECK(offsetof(PTRC_HASH, main_gid) == 0x10, "main_gid");
VARNIX_LAYOUT_CHECK(offsetof(PTRC_HASH, main_svc_id) == 0x31, "main_svc_id");
VARNIX_LAYOUT_CHECK(offsetof(PTRC_HASH, main_recv_svc_cd) == 0x42, "main_recv_svc_cd");
VARNIX_LAYOUT_CHECK(offsetof(PTRC_HASH, svc_stack) == 0x4F, "svc_stack");
VARNIX_LAYOUT_CHECK(offsetof(PTRC_HASH, service_depth) == 709, "service_depth");
VARNIX_LAYOUT_CHECK(offsetof(PTRC_HASH, chnl_class) == 710, "chnl_class");
VARNIX_LAYOUT_CHECK(offsetof(PTRC_HASH, saved_svc_state) == 711, "saved_svc_state");
VARNIX_LAYOUT_CHECK(offsetof(PTRC_HASH, reg_flag) == 712, "reg_flag");
VARNIX_LAYOUT_CHECK(offsetof(PTRC_HASH, err_rc_marked) == 713, "err_rc_marked");
VARNIX_LAYOUT_CHECK(offsetof(PTRC_HASH, svctimeout_flag) == 714, "svctimeout_flag");
VARNIX_LAYOUT_CHECK(offsetof(PTRC_HASH, dbio_sts) == 715, "dbio_sts");
VARNIX_LAYOUT_CHECK(offsetof(PTRC_HASH, proc_nm) == 718, "proc_nm");
VARNIX_LAYOUT_CHECK(offsetof(PTRC_HASH, cont_nm) == 749, "cont_nm");
VARNIX_LAYOUT_CHECK(offsetof(PTRC_HASH, key_pid) == 780, "key_pid");
VARNIX_LAYOUT_CHECK(offsetof(PTRC_HASH, key_tid) == 789, "key_tid");
VARNIX_LAYOUT_CHECK(offsetof(PTRC_HASH, key_idx) == 805, "key_idx");
VARNIX_LAYOUT_CHECK(offsetof(PTRC_HASH, pid) == 812, "pid");
VARNIX_LAYOUT_CHECK(offsetof(PTRC_HASH, tid) == 816, "tid");
VARNIX_LAYOUT_CHECK(offsetof(PTRC_HASH, snapshot_state) == 0x338, "snapshot_state");
VARNIX_LAYOUT_CHECK(offsetof(PTRC_HASH, snapshot_tr_cd) == 0x339, "snapshot_tr_cd");
VARNIX_LAYOUT_CHECK(offsetof(PTRC_HASH, snapshot_aux) == 0x348, "snapshot_aux");
VARNIX_LAYOUT_CHECK(offsetof(PTRC_HASH, preset_start_tv) == 0x350, "preset_start_tv");
VARNIX_LAYOUT_CHECK(offsetof(PTRC_HASH, svc_start_tv) == 0x360, "svc_start_tv");
VARNIX_LAYOUT_CHECK(offsetof(PTRC_HASH, svc_end_tv) == 0x370, "svc_end_tv");
VARNIX_LAYOUT_CHECK(offsetof(PTRC_HASH, svc_state) == 0x380, "svc_state");
VARNIX_LAYOUT_CHECK(offsetof(PTRC_HASH, ptrc_state) == 897, "ptrc_state");
VARNIX_LAYOUT_CHECK(offsetof(PTRC_HASH, trc_lvl) == 898, "trc_lvl");
VARNIX_LAYOUT_CHECK(offsetof(PTRC_HASH, last_fin_lvl) == 899, "last_fin_lvl");
VARNIX_LAYOUT_CHECK(offsetof(PTRC_HASH, call_trc_depth_max) == 900, "call_trc_depth_max");
VARNIX_LAYOUT_CHECK(offsetof(PTRC_HASH, call_trc_depth) == 904, "call_trc_depth");
VARNIX_LAYOUT_CHECK(offsetof(PTRC_HASH, total_call_cnt) == 0x38C, "total_call_cnt");
VARNIX_LAYOUT_CHECK(offsetof(PTRC_HASH, qidx) == 912, "qidx");
VARNIX_LAYOUT_CHECK(offsetof(PTRC_HASH, dbio_skip) == 915, "dbio_skip");
VARNIX_LAYOUT_CHECK(offsetof(PTRC_HASH, call_trc_limit) == 920, "call_trc_limit");
VARNIX_LAYOUT_CHECK(offsetof(PTRC_HASH, dbio_trc_limit) == 928, "dbio_trc_limit");
VARNIX_LAYOUT_CHECK(offsetof(PTRC_HASH, sql_trc_limit) == 0x3A8, "sql_trc_limit");
VARNIX_LAYOUT_CHECK(offsetof(PTRC_HASH, call_lvl) == 944, "call_lvl");
VARNIX_LAYOUT_CHECK(offsetof(PTRC_HASH, call_elapsed_sum) == 0x4370, "call_elapsed_sum");
VARNIX_LAYOUT_CHECK(offsetof(PTRC_HASH, sql_rec_cnt) == 17272, "sql_rec_cnt");
VARNIX_LAYOUT_CHECK(offsetof(PTRC_HASH, sql_slot) == 17280, "sql_slot");
VARNIX_LAYOUT_CHECK(offsetof(PTRC_HASH, sql_id) == 59840, "sql_id");
VARNIX_LAYOUT_CHECK(offsetof(PTRC_HASH, sql_code) == 0xEB10, "sql_code");
VARNIX_LAYOUT_CHECK(offsetof(PTRC_HASH, sql_err_msg) == 0xEB18, "sql_err_msg");
VARNIX_LAYOUT_CHECK(offsetof(PTRC_HASH, fetch_last) == 0xEB80, "fetch_last");
VARNIX_LAYOUT_CHECK(offsetof(PTRC_HASH, fetch_cnt) == 0xEB8C, "fetch_cnt");
VARNIX_LAYOUT_CHECK(offsetof(PTRC_HASH, fetch_rows_sum) == 0xEB90, "fetch_rows_sum");
VARNIX_LAYOUT_CHECK(offsetof(PTRC_HASH, fetch_time_sum) == 0xEB94, "fetch_time_sum");
VARNIX_LAYOUT_CHECK(offsetof(PTRC_HASH, db_user) == 0xEB98, "db_user");
VARNIX_LAYOUT_CHECK(offsetof(PTRC_HASH, db_sid) == 0xEBA3, "db_sid");
VARNIX_LAYOUT_CHECK(offsetof(PTRC_HASH, svc_mark_time) == 0xEBB0, "svc_mark_time");
VARNIX_LAYOUT_CHECK(sizeof(PTRC_HASH) == 60344, "PTRC_HASH size");

typedef struct PTRC_HASH_TBL {
    uint32_t used_cnt;
    int32_t hash_idx[VARNIX_HASH_BUCKETS];
    char reserved[4];
    PTRC_HASH entry[VARNIX_TBL_ENTRIES];
    HASH_IDX_STK free_stk;
    HASH_IDX_STK used_stk;
} PTRC_HASH_TBL;

VARNIX_LAYOUT_CHECK(offsetof(PTRC_HASH_TBL, hash_idx) == 4, "hash_idx");
VARNIX_LAYOUT_CHECK(offsetof(PTRC_HASH_TBL, entry) == 262152, "entry");
VARNIX_LAYOUT_CHECK(offsetof(PTRC_HASH_TBL, free_stk) == 603702152, "free_stk");
VARNIX_LAYOUT_CHECK(offsetof(PTRC_HASH_TBL, used_stk) == 603742156, "used_stk");
VARNIX_LAYOUT_CHECK(sizeof(PTRC_HASH_TBL) == 603782160, "PTRC_HASH_TBL size");

/* ---- Process-thread table semaphore set ------------------------------------ */

/* The set named by PTRC_HASH_TBL_SEMKEY.  Semaphore 0 locks the table's
 * chains and stacks (1 free, 0 held).  Semaphore VARNIX_PTRC_SEM_OWNER(n) is
 * raised by 1, with SEM_UNDO, by the process that holds entry n: the kernel
 * lowers it again when that process ends, however it ends and whatever its pid
 * namespace, so a value of 0 on a registered entry means its owner is gone.
 * Semaphore VARNIX_PTRC_SEM_AGENT is held the same way by the running agent. */
#define VARNIX_PTRC_SEM_LOCK 0
#define VARNIX_PTRC_SEM_OWNER(n) (1 + (n))
#define VARNIX_PTRC_SEM_AGENT (1 + VARNIX_TBL_ENTRIES)
#define VARNIX_PTRC_SEM_CNT (2 + VARNIX_TBL_ENTRIES)

/* ---- Service table ------------------------------------------------------- */

/* One listed service.  The header and the collector data are the collector's
 * own: pidx/hidx/prev mirror the process-thread entry's chain fields. */
typedef struct SVC_HASH {
    uint32_t pidx;
    uint32_t hidx;
    int32_t prev;
    int32_t next;
    char collector_data1[81];
    char svc_id[16];            /* space-padded */
    char reserved1[3];
    int32_t call_trc_depth;
    int64_t call_trc_limit;
    int64_t dbio_trc_limit;
    int64_t sql_trc_limit;
    char collector_data2[4];
    uint8_t svc_flag_set;       /* VARNIX_FLAG_* except X */
    char collector_data3[3];
} SVC_HASH;

VARNIX_LAYOUT_CHECK(offsetof(SVC_HASH, next) == 12, "next");
VARNIX_LAYOUT_CHECK(offsetof(SVC_HASH, svc_id) == 97, "svc_id");
VARNIX_LAYOUT_CHECK(offsetof(SVC_HASH, call_trc_depth) == 116, "call_trc_depth");
VARNIX_LAYOUT_CHECK(offsetof(SVC_HASH, call_trc_limit) == 120, "call_trc_limit");
VARNIX_LAYOUT_CHECK(offsetof(SVC_HASH, dbio_trc_limit) == 128, "dbio_trc_limit");
VARNIX_LAYOUT_CHECK(offsetof(SVC_HASH, sql_trc_limit) == 136, "sql_trc_limit");
VARNIX_LAYOUT_CHECK(offsetof(SVC_HASH, svc_flag_set) == 148, "svc_flag_set");
VARNIX_LAYOUT_CHECK(sizeof(SVC_HASH) == 152, "SVC_HASH size");

typedef struct SVC_HASH_TBL {
    uint32_t svc_cnt;
    int32_t svc_hash_idx[VARNIX_HASH_BUCKETS];
    char reserved[4];
    SVC_HASH entry[VARNIX_TBL_ENTRIES];
    HASH_IDX_STK svc_free_stk;
    HASH_IDX_STK svc_used_stk;
} SVC_HASH_TBL;

VARNIX_LAYOUT_CHECK(offsetof(SVC_HASH_TBL, svc_hash_idx) == 4, "svc_hash_idx");
VARNIX_LAYOUT_CHECK(offsetof(SVC_HASH_TBL, entry) == 262152, "entry");
VARNIX_LAYOUT_CHECK(offsetof(SVC_HASH_TBL, svc_free_stk) == 1782152, "svc_free_stk");
VARNIX_LAYOUT_CHECK(offsetof(SVC_HASH_TBL, svc_used_stk) == 1822156, "svc_used_stk");
VARNIX_LAYOUT_CHECK(sizeof(SVC_HASH_TBL) == 1862160, "SVC_HASH_TBL size");

/* ---- Trace record on the collector's queues ------------------------------- */

#define VARNIX_REC_TEXT 784 /* msgsnd/msgrcv text size */
#define VARNIX_REC_BODY 780 /* body after the u32 length word */

typedef struct TRAN_LOG_MSG {
    long mtype;                 /* always 1 */
    char text[VARNIX_REC_TEXT]; /* u32 body length, then the body */
} TRAN_LOG_MSG;

VARNIX_LAYOUT_CHECK(sizeof(TRAN_LOG_MSG) == 792, "TRAN_LOG_MSG size");

/* ---- Helpers exported for the collector side ------------------------------ */

/* Configuration encoders for the shared block. */
VARNIX_API uint8_t get_log_flag_set(const char *letters);
VARNIX_API int set_fst_err_rc_set(const char *rule);
VARNIX_API int read_config(void);

/* Table initializers: work on the tables attached by the library. */
VARNIX_API int init_ptrc_hash_tbl(void);
VARNIX_API int init_svc_hash_tbl(void);

/* Index stacks, last in first out.  push returns the new count, or -1 when
 * the stack is full (nothing changes); pop returns the number on top, or
 * 0xFFFFFFFF (-1) when the stack is empty.  popv removes the first occurrence
 * of a number, moving the last number into its place, and returns it, or
 * 0xFFFFFFFF when absent.  show logs the numbers and returns the count.  A
 * null stack is refused with -1. */
VARNIX_API int svc_hash_push(HASH_IDX_STK *stk, uint32_t n);
VARNIX_API uint32_t svc_hash_pop(HASH_IDX_STK *stk);
VARNIX_API uint32_t svc_hash_popv(HASH_IDX_STK *stk, uint32_t n);
VARNIX_API int svc_hash_show(HASH_IDX_STK *stk);
VARNIX_API int jcache_hash_push(JCACHE_IDX_STK *stk, uint32_t n);
VARNIX_API uint32_t jcache_hash_pop(JCACHE_IDX_STK *stk);

/* Message queues and semaphores. */
VARNIX_API int read_msgq(int qid, long type, void *buf, int size, int nowait);
VARNIX_API int remove_msgq(int qid);
VARNIX_API int change_mode_msgq(int qid, const char *mode);
VARNIX_API int get_msgq_num(int qid);
VARNIX_API int init_sem_val(int semid, int semnum, int value);

/* Bytes to keep so that a cut splits no Korean character (0 EUC-KR, 1 UTF-8). */
VARNIX_API int hcut(const char *text, int len, int cut, int encoding);

#ifdef __cplusplus
}
#endif

#endif /* VARNIX_COLLECTOR_H */
