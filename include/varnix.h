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
    VARNIX_RC_NO_CONTEXT = 107,     /* no free thread context in the bucket */
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

/* ---- Information records ---- */

/* ---- Context setters ---- */

/* Writes the thread contexts of one bucket (0..255) to the diagnostic log. */
VARNIX_API void show_mtr_idx_list(int32_t bucket);
/* Copies into dest (31 bytes) at most 30 characters after '=' of the last
 * string of the NUL-separated buffer that contains `search`. */
VARNIX_API void set_cont_nm(const char *buf, int32_t len, char *dest, const char *search);

#ifdef __cplusplus
}
#endif

#endif /* VARNIX_H */
