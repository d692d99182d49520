/*
 * libvarnix: transaction tracing API for on-line server processes.
 *
 * Every record-producing entry returns the number of the collector queue that
 * carried its record (0..15) on success, so any value below 99 means success;
 * other entries return 0.  Failure statuses are the VARNIX_RC_* values below.
 *
 * Text arguments are pairs of a character pointer and a 32-bit length: a
 * length of -1 means NUL-terminated, a NULL pointer leaves the field blank.
 * A negative thread id means the calling thread.
 */
#ifndef VARNIX_H
#define VARNIX_H

#include <stdint.h>

/* The version of the package this header belongs to; the build takes the
 * project's version from these three lines.  VARNIX_VERSION_NUMBER compares
 * in #if: 10203 for 1.2.3. */
#define VARNIX_VERSION_MAJOR 1
#define VARNIX_VERSION_MINOR 0
#define VARNIX_VERSION_PATCH 0
#define VARNIX_VERSION_NUMBER (VARNIX_VERSION_MAJOR * 10000 + VARNIX_VERSION_MINOR * 100 + VARNIX_VERSION_PATCH)
#define VARNIX_VERSION_TEXT_(n) #n
#define VARNIX_VERSION_TEXT(n) VARNIX_VERSION_TEXT_(n)
#define VARNIX_VERSION                                                                      \
    VARNIX_VERSION_TEXT(VARNIX_VERSION_MAJOR) "." VARNIX_VERSION_TEXT(VARNIX_VERSION_MINOR) "." \
        VARNIX_VERSION_TEXT(VARNIX_VERSION_PATCH)

#ifndef VARNIX_API
#define VARNIX_API __attribute__((visibility("default")))
#endif

#ifdef __cplusplus
extern "C" {
#endif

enum {
    VARNIX_RC_BAD_MAGIC = 99,       /* shared control block is corrupt */
    VARNIX_RC_CLASS_OFF = 100,      /* record class switched off */
    VARNIX_RC_NO_QUE_INFO = 101,    /* control block missing, or qcnt not 1..16 */
    VARNIX_RC_BAD_TYPE = 102,       /* unknown record type */
    VARNIX_RC_NOT_INIT = 103,       /* not initialized, or initialization failed */
    VARNIX_RC_ALREADY_INIT = 104,
    VARNIX_RC_SEND_FAIL = 105,      /* the queue refused the record */
    VARNIX_RC_NO_ENV = 106,         /* a required environment variable is missing */
    VARNIX_RC_NO_CONTEXT = 107,     /* no free thread context in the bucket, or its mutex stayed busy (logged) */
    VARNIX_RC_NOT_TRACED = 109,     /* call finish not traced at this depth */
    VARNIX_RC_BIZ_FAST = 110,       /* BIZCALL below its limit: no record */
    VARNIX_RC_DBIO_FAST = 111,      /* DBIO below its limit: no record */
    VARNIX_RC_NO_SERVICE = 112,     /* record outside a started service */
    VARNIX_RC_SQL_LIMIT = 113,      /* too many SQL statements for one call */
    VARNIX_RC_CALL_DEPTH = 115,     /* no call open, or call depth error */
    VARNIX_RC_PTRC_FULL = 116,      /* process-thread table full */
    VARNIX_RC_MUTEX = 117,          /* a bucket mutex could not be initialized */
    VARNIX_RC_PTRC_MISMATCH = 118,  /* context and process-thread entry disagree */
    VARNIX_RC_FILTERED = 121,       /* service filtered out */
    VARNIX_RC_DBIO_IN_DBIO = 122,
    VARNIX_RC_SVC_DEPTH = 123,      /* service depth out of range */
    VARNIX_RC_SHORT_TMSG = 124,     /* telegram too short for capture */
    VARNIX_RC_SQL_NO_DBIO = 125,    /* SQL text outside a DBIO call */
    VARNIX_RC_SVC_TIMEOUT = 126     /* tracing stopped by a service time-out */
};

/* Diagnostic-log home and full-message log home, set by initialization. */
VARNIX_API extern char log_home_dir[512];
VARNIX_API extern char tong_log_home_dir[512];

/* Set by the Java binding before initialization. */
VARNIX_API extern int32_t jni_init_flag;
VARNIX_API extern char init_cont_nm[31];

/* Database user and instance taken into every process-thread entry. */
VARNIX_API extern char init_db_user[11];
VARNIX_API extern char init_db_sid[11];

/*
 * The full-message writer thread, started by TRAN_INIT.  th_join_thread waits
 * until it has ended (it ends after TRAN_DONE); th_cancel_thread asks it to
 * stop between two records.  A cancelled writer is still joined, by
 * th_join_thread or by the next TRAN_INIT.  The library calls neither.
 */
VARNIX_API void th_join_thread(void);
VARNIX_API void th_cancel_thread(void);

/* Full-message records that could not be queued since the writer last opened
 * its data file. */
VARNIX_API extern int32_t nfailcount;

/* Full-message capture, while the collector has it switched on: the telegram
 * (len < 0: up to its NUL) goes, behind a 117-byte header, to this process's
 * data file of the day.  api_type is the capturing entry's type (100 start,
 * 101 end).  124 for a telegram shorter than 512 bytes, else 0, also when
 * capture is off or the record had to be dropped. */
VARNIX_API int32_t save_tong_log4c(int32_t tid, const char *tmsg, int32_t len, int8_t api_type);

/* 0 when the next TRAN_INIT clears the process block, 1 when the last one did,
 * 2 when TRAN_INIT ran again without a successful TRAN_DONE in between. */
VARNIX_API extern int32_t gvar_cleared;

/* Start and stop of tracing in this process: 0, or a status above
 * (TRAN_DONE: 0 or -1). */
VARNIX_API int32_t TRAN_INIT(void);
VARNIX_API int32_t TRAN_DONE(void);

/*
 * Text arguments are (pointer, length) pairs: a null pointer leaves the field
 * blank, a negative length means NUL-terminated.  tid < 0 means the calling
 * thread.  Record-producing entries return the number of the queue that
 * carried the record (0..15) or a status above.
 */
#define VARNIX_NOTICE_PARAMS                                                                                   \
    int32_t tid, const char *cls_cd, int32_t cls_cd_len, const char *dtl_cd, int32_t dtl_cd_len, const char *gid, \
        int32_t gid_len, const char *svc_id, int32_t svc_id_len, const char *pid_str, int32_t pid_str_len,         \
        const char *date_str, int32_t date_str_len, const char *time_str, int32_t time_str_len,                    \
        const char *evt_no, int32_t evt_no_len, const char *recv_svc_cd, int32_t recv_svc_cd_len,                  \
        const char *chnl_class, int32_t chnl_class_len, const char *msg_text, int32_t msg_text_len

/* An event record; the library sends 1508 at start-up itself. */
VARNIX_API int32_t TRAN_EVENT(VARNIX_NOTICE_PARAMS);
/* Error information for the service open on the thread (its GID and service
 * id; the gid and svc_id arguments are ignored). */
VARNIX_API int32_t TRAN_ERRINFO(VARNIX_NOTICE_PARAMS);

/* ---- Service entries: start, end, error, process tracing ---- */
/* The leading arguments of every service entry: the thread, the record's
 * codes, the transaction's GID and service id, and optional process id, date
 * and time texts. */
#define VARNIX_SERVICE_HEAD_PARAMS                                                                             \
    int32_t tid, const char *cls_cd, int32_t cls_cd_len, const char *dtl_cd, int32_t dtl_cd_len, const char *gid, \
        int32_t gid_len, const char *svc_id, int32_t svc_id_len, const char *pid_str, int32_t pid_str_len,         \
        const char *date_str, int32_t date_str_len, const char *time_str, int32_t time_str_len
/* The first eight columns of the standard telegram. */
#define VARNIX_TELEGRAM_HEAD_PARAMS                                                                              \
    const char *tmsg_flag, int32_t tmsg_flag_len, const char *trsc_grco_br, int32_t trsc_grco_br_len,           \
        const char *chnl_typ_cd, int32_t chnl_typ_cd_len, const char *recv_svc_cd, int32_t recv_svc_cd_len,      \
        const char *scrn_id, int32_t scrn_id_len, const char *emp_no, int32_t emp_no_len,                        \
        const char *proc_rslt_dv_cd, int32_t proc_rslt_dv_cd_len, const char *std_tmsg_err_cd,                  \
        int32_t std_tmsg_err_cd_len
/* The other fourteen. */
#define VARNIX_TELEGRAM_TAIL_PARAMS                                                                              \
    const char *std_tmsg_len, int32_t std_tmsg_len_len, const char *ipv6_adr, int32_t ipv6_adr_len,             \
        const char *fst_trms_sys_cd, int32_t fst_trms_sys_cd_len, const char *trms_sys_cd, int32_t trms_sys_cd_len, \
        const char *rqst_rsps_dv_cd, int32_t rqst_rsps_dv_cd_len, const char *trsc_sync_dv_cd,                   \
        int32_t trsc_sync_dv_cd_len, const char *rslt_recv_svc_cd, int32_t rslt_recv_svc_cd_len,                 \
        const char *eai_intf_id, int32_t eai_intf_id_len, const char *dsbl_sys_cd, int32_t dsbl_sys_cd_len,      \
        const char *otsd_inst_cd, int32_t otsd_inst_cd_len, const char *otsd_biz_cd, int32_t otsd_biz_cd_len,    \
        const char *fst_trms_mdcl_ctt, int32_t fst_trms_mdcl_ctt_len, const char *opt_flag1,                     \
        int32_t opt_flag1_len, const char *opt_flag2, int32_t opt_flag2_len
/* Five fields of a service kind's own, named p1 to p5 (30, 20, 20, 30 and 3
 * characters). */
#define VARNIX_FIVE_PARAMS(p)                                                                                  \
    const char *p##1, int32_t p##1_len, const char *p##2, int32_t p##2_len, const char *p##3, int32_t p##3_len, \
        const char *p##4, int32_t p##4_len, const char *p##5, int32_t p##5_len
/* The five process-tracing parameters. */
#define VARNIX_PT_PARAMS VARNIX_FIVE_PARAMS(pt_param)
/* The five web fields. */
#define VARNIX_WEB_PARAMS VARNIX_FIVE_PARAMS(web_field)
#define VARNIX_SERVICE_PARAMS VARNIX_SERVICE_HEAD_PARAMS, VARNIX_TELEGRAM_HEAD_PARAMS, VARNIX_TELEGRAM_TAIL_PARAMS
#define VARNIX_PT_SERVICE_PARAMS VARNIX_SERVICE_HEAD_PARAMS, VARNIX_TELEGRAM_HEAD_PARAMS, VARNIX_PT_PARAMS
#define VARNIX_WEB_SERVICE_PARAMS VARNIX_SERVICE_HEAD_PARAMS, VARNIX_TELEGRAM_HEAD_PARAMS, VARNIX_WEB_PARAMS

/* Opens a service level on the thread and sends its start record. */
VARNIX_API int32_t TRAN_START(VARNIX_SERVICE_PARAMS);
/* Closes the level opened last; the outermost end carries the elapsed time. */
VARNIX_API int32_t TRAN_END(VARNIX_SERVICE_PARAMS);
/* Records that the open service failed; the level stays open. */
VARNIX_API int32_t TRAN_ERROR(VARNIX_SERVICE_PARAMS);
/* The same pair for process-tracing services. */
VARNIX_API int32_t TRAN_PT_START(VARNIX_PT_SERVICE_PARAMS);
VARNIX_API int32_t TRAN_PT_END(VARNIX_PT_SERVICE_PARAMS);

/* ---- Standard telegrams ---- */
/*
 * Where the fields of a standard telegram lie: each is {offset, length} in
 * bytes.  The entries below read the table on every call, so a host moves a
 * field by storing other values before it calls.  An offset of -1 marks a
 * field of the error-message part, whose place follows from the counts.  No
 * field is ever read at or past the telegram's length.
 */
VARNIX_API extern int32_t _STD_TMSG_LEN[2];            /*   0,   8 */
VARNIX_API extern int32_t _GLBL_ID[2];                 /*   9,  32 */
VARNIX_API extern int32_t _IPV6_ADR[2];                /*  41,  39 */
VARNIX_API extern int32_t _FST_TRMS_SYS_CD[2];         /*  93,   3 */
VARNIX_API extern int32_t _TRMS_SYS_CD[2];             /*  96,   3 */
VARNIX_API extern int32_t _RQST_RSPS_DV_CD[2];         /* 104,   1 */
VARNIX_API extern int32_t _TRSC_SYNC_DV_CD[2];         /* 105,   1 */
VARNIX_API extern int32_t _RECV_SVC_CD[2];             /* 132,  12 */
VARNIX_API extern int32_t _RSLT_RECV_SVC_CD[2];        /* 144,  12 */
VARNIX_API extern int32_t _EAI_INTF_ID[2];             /* 156,  16 */
VARNIX_API extern int32_t _PROC_RSLT_DV_CD[2];         /* 188,   1: '0' or blank normal, else failed */
VARNIX_API extern int32_t _DSBL_SYS_CD[2];             /* 192,   3 */
VARNIX_API extern int32_t _STD_TMSG_ERR_CD[2];         /* 195,   9 */
VARNIX_API extern int32_t _CHNL_TYP_CD[2];             /* 209,   3: ICT and ICC are internal channels */
VARNIX_API extern int32_t _EMP_NO[2];                  /* 302,   7 */
VARNIX_API extern int32_t _TRSC_GRCO_CD[2];            /* 315,   2: with the branch, one 6-character field */
VARNIX_API extern int32_t _TRSC_BR_NO[2];              /* 317,   4 */
VARNIX_API extern int32_t _SCRN_ID[2];                 /* 366,   9 */
VARNIX_API extern int32_t _OTSD_INST_CD[2];            /* 401,   4 */
VARNIX_API extern int32_t _OTSD_BIZ_CD[2];             /* 405,   3 */
VARNIX_API extern int32_t _FST_TRMS_MDCL_CTT[2];       /* 435,  39 */
VARNIX_API extern int32_t _STD_TMSG_DAT_KIND_CD[2];    /* 512,   2: "EM" carries error messages */
VARNIX_API extern int32_t _ERR_ORGN_ITEM_REPT_TCNT[2]; /* 561,   2: item count, then the items */
VARNIX_API extern int32_t _ERR_ORGN_ITEM_NM[2];        /*  -1,  20 */
VARNIX_API extern int32_t _MSG_INFO_REPT_TCNT[2];      /*  -1,   2: message count, then the messages */
VARNIX_API extern int32_t _MSG_CD[2];                  /*  -1,   9 */
VARNIX_API extern int32_t _RSPS_MSG_CTT[2];            /*  -1, 300 */
VARNIX_API extern int32_t _ADTN_MSG_REPT_TCNT[2];      /*  -1,   2: additional-message count, then those */
VARNIX_API extern int32_t _ADTN_MSG[2];                /*  -1, 200 */

/*
 * A whole service traced from its telegram: TRAN_STARTX in place of
 * TRAN_START, TRAN_ENDX in place of TRAN_END.  std_tmsg non-zero: a
 * standard telegram, read through the table above; zero: the fixed layout
 * of the older telegram.  tmsg_len < 0: up to the telegram's NUL, at most
 * 999,999 bytes.  tmsg_flag non-zero records the telegram flag "1", else
 * "0".  Services whose id begins with "CLH" go to the client-handler
 * entries, at the end also those beginning with "GW" when there is no
 * telegram or it has the fixed layout.  An end telegram with a failed result
 * also records the error; a standard one given with its length (over 1084
 * bytes, data kind "EM") its messages too.  With capture on, a standard telegram
 * is captured first (124, and nothing traced, when it is shorter than 512
 * bytes).  The result is that of the start or end entry called.
 */
VARNIX_API int32_t TRAN_STARTX(int32_t tid, const char *cls_cd, int32_t cls_cd_len, const char *dtl_cd,
                               int32_t dtl_cd_len, const char *gid, int32_t gid_len, const char *svc_id,
                               int32_t svc_id_len, const char *tmsg, int32_t tmsg_len, int32_t std_tmsg,
                               int32_t tmsg_flag);
VARNIX_API int32_t TRAN_ENDX(int32_t tid, const char *cls_cd, int32_t cls_cd_len, const char *dtl_cd,
                             int32_t dtl_cd_len, const char *gid, int32_t gid_len, const char *svc_id,
                             int32_t svc_id_len, const char *tmsg, int32_t tmsg_len, int32_t std_tmsg,
                             int32_t tmsg_flag);

/* ---- Front-end services: client handlers, web front ends, gateways ---- */
/*
 * A front end is always the outermost service on its thread: each of these
 * entries sets the thread's service depth to 1, whatever it was, and none of
 * them opens or closes a nesting level of TRAN_START and TRAN_END.  Their
 * records carry depth 01 and no elapsed time.
 */
/* Client handler: start, end and error records of the standard telegram
 * layout.  An error is recorded even when no service is open. */
VARNIX_API int32_t TRAN_CLH_START(VARNIX_SERVICE_PARAMS);
VARNIX_API int32_t TRAN_CLH_END(VARNIX_SERVICE_PARAMS);
VARNIX_API int32_t TRAN_CLH_ERROR(VARNIX_SERVICE_PARAMS);
/* Web front end: start and end records with five web fields after the
 * first eight telegram columns. */
VARNIX_API int32_t TRAN_WEB_START(VARNIX_WEB_SERVICE_PARAMS);
VARNIX_API int32_t TRAN_WEB_END(VARNIX_WEB_SERVICE_PARAMS);
/* Gateway: no record, only the depth; 0, or a status of the library state
 * (100 when service records are switched off).  Only tid is used. */
VARNIX_API int32_t TRAN_FEP_START(int32_t tid, const char *cls_cd, int32_t cls_cd_len, const char *dtl_cd,
                                  int32_t dtl_cd_len, const void *reserved);
VARNIX_API int32_t TRAN_FEP_END(int32_t tid, const char *cls_cd, int32_t cls_cd_len, const char *dtl_cd,
                                int32_t dtl_cd_len, const void *reserved);

/* ---- Call tracing: BIZCALL and DBIO calls ---- */

/*
 * A business call (BIZCALL) or database call (DBIO: its function name carries
 * the configured DBIO signature) is bracketed by TRAN_CALLINFO_S and
 * TRAN_CALLINFO_F, in last-in first-out order on each thread, inside a
 * service.  The module, source and function names and the kind label are read
 * as NUL-terminated texts (their lengths are not used); the record-header
 * pairs of TRAN_CALLINFO_S are not used.  A start option of -1 makes the
 * finish's return code 99.
 */
VARNIX_API int32_t TRAN_CALLINFO_S(int32_t tid, const char *cls_cd, int32_t cls_cd_len, const char *dtl_cd,
                                   int32_t dtl_cd_len, const char *gid, int32_t gid_len, const char *svc_id,
                                   int32_t svc_id_len, const char *pid_str, int32_t pid_str_len, const char *date_str,
                                   int32_t date_str_len, const char *time_str, int32_t time_str_len,
                                   const char *module_nm, int32_t module_nm_len, const char *source_nm,
                                   int32_t source_nm_len, int32_t line_no, int32_t start_opt, const char *func_nm);
/* Closes the innermost open call.  Its record goes out when the call lasted
 * at least its limit or an error return code forced it: the queue number;
 * else 110 (BIZCALL) or 111 (DBIO), 109 for a call too deep to be traced. */
VARNIX_API int32_t TRAN_CALLINFO_F(int32_t tid, const char *cls_cd, int32_t cls_cd_len, const char *dtl_cd,
                                   int32_t dtl_cd_len, const char *gid, int32_t gid_len, const char *svc_id,
                                   int32_t svc_id_len, const char *pid_str, int32_t pid_str_len, const char *date_str,
                                   int32_t date_str_len, const char *time_str, int32_t time_str_len,
                                   const char *module_nm, int32_t module_nm_len, const char *source_nm,
                                   int32_t source_nm_len, int32_t line_no, int32_t rc, const char *func_nm,
                                   int32_t func_nm_len, const char *kind_label, int32_t kind_label_len);

/* ---- SQL tracing ---- */
/*
 * Inside a DBIO call: mode 0 reports a statement (kept until the call
 * finishes, at most 5 distinct ones, repeats merged; 0 when kept), mode 1
 * sends the kept statements that ran at least the SQL limit as SQL text
 * records (the call finish does this itself); other modes do nothing.
 * start_tm and end_tm point to struct timeval values, or, when sql_no is
 * 9999, to int64_t microsecond counts; a null one means now.  sql_text is
 * NUL-terminated (its length argument is not used); at most 8192 bytes are
 * kept.  date_str and time_str head the call's SQL records (now when null).
 */
VARNIX_API int32_t TRAN_SQL_STMT(int32_t tid, int32_t mode, const char *date_str, int32_t date_str_len,
                                 const char *time_str, int32_t time_str_len, int32_t sql_no, const void *start_tm,
                                 const void *end_tm, const char *sql_text, int32_t sql_text_len);
/* Stores an SQL identifier (200 characters) in the thread's entry for the
 * collector; no record is sent. */
VARNIX_API int32_t TRAN_SQL_ID(int32_t tid, const char *sql_id, int32_t sql_id_len);

/* ---- Information records ---- */
/* Free text for the transaction; a missing GID and service id are those of
 * the service open on the thread.  123 when there is neither a service id nor
 * an open service. */
VARNIX_API int32_t TRAN_INFO(int32_t tid, const char *cls_cd, int32_t cls_cd_len, const char *dtl_cd,
                             int32_t dtl_cd_len, const char *gid, int32_t gid_len, const char *svc_id,
                             int32_t svc_id_len, const char *pid_str, int32_t pid_str_len, const char *date_str,
                             int32_t date_str_len, const char *time_str, int32_t time_str_len, const char *msg_text,
                             int32_t msg_text_len);
/* The same with a four-character information code before the text. */
VARNIX_API int32_t TRAN_INFO_EX(int32_t tid, const char *cls_cd, int32_t cls_cd_len, const char *dtl_cd,
                                int32_t dtl_cd_len, const char *gid, int32_t gid_len, const char *svc_id,
                                int32_t svc_id_len, const char *pid_str, int32_t pid_str_len, const char *date_str,
                                int32_t date_str_len, const char *time_str, int32_t time_str_len, const char *info_cd,
                                int32_t info_cd_len, const char *msg_text, int32_t msg_text_len);

/* ---- Context setters ---- */
/* Presets the time of the next outermost service start (or, inside a
 * service, of its end) to now.  0, or a status of the library state. */
VARNIX_API int32_t TRAN_SET_TIME(int32_t tid);
/* -1 when an SQL of elapsed_us microseconds stays below the thread's SQL trace
 * limit, else 0. */
VARNIX_API int32_t TRAN_CHECK_SQL_TIME(int32_t tid, int64_t elapsed_us);
/* The hash of the shared tables over a NUL-terminated text; 0 for NULL.  The
 * first three arguments are not used. */
VARNIX_API int32_t TRAN_GET_HASH_CODE(int64_t unused1, int64_t unused2, int32_t unused3, const char *text);
/* Database status of the current DBIO call (the low 8 bits are kept). */
VARNIX_API int32_t TRAN_SET_DBIO_STS(int32_t tid, int32_t sts);
/* SQLCODE and error text of the open DBIO call; an SQL error (anything but 0
 * and 1403) also raises event 1810.  123 outside a service, 115 when no call
 * is open; 0 without effect when the innermost open call is a BIZCALL. */
VARNIX_API int32_t TRAN_SET_SQLCA_INFO(int32_t tid, int64_t sqlcode, const char *errmsg, int16_t line);
/* Database user and instance (10 characters each) for the process-thread
 * entries; call it before TRAN_INIT, which takes them over.  NULL keeps a
 * name.  The tid is not used. */
VARNIX_API int32_t TRAN_SET_DBCONN_INFO(int32_t tid, const char *db_user, const char *db_sid);
/* Rows and time (microseconds, 32 bits kept) of one fetch and its source
 * line; added to the service's fetch sums. */
VARNIX_API int32_t TRAN_SET_FETCH_INFO(int32_t tid, int32_t rows, int64_t fetch_us, int16_t line);
/* The transaction monitor declared a service time-out: sends a notice and
 * stops tracing in the process (every entry that checks the library state
 * returns 126) until the next initialization. */
VARNIX_API int32_t TRAN_SET_SVCTIMEOUT(int32_t tid);

/* Writes the thread contexts of one bucket (0..255) to the diagnostic log. */
VARNIX_API void show_mtr_idx_list(int32_t bucket);
/* Copies into dest (31 bytes) at most 30 characters after '=' of the last
 * string of the NUL-separated buffer that contains `search`. */
VARNIX_API void set_cont_nm(const char *buf, int32_t len, char *dest, const char *search);

#ifdef __cplusplus
}
#endif

#endif /* VARNIX_H */
