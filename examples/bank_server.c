/* bank_server: a small traced banking service for the demo.  One transfer
 * runs as the outermost service ACCT_TRANSFER with two nested services: the
 * debit reads and updates the balance through DBIO calls with their SQL (the
 * update is slow, so that a live view catches it), the credit's limit check
 * fails and is reported as a service error with error information.  The
 * transfer starts and ends from its standard telegrams, which are captured
 * when the agent has capture on.  Each step prints what the library returned: a queue number (0..15), or
 * a status of 99 and above. */
#include <stdio.h>
#include <string.h>
#include <sys/time.h>
#include <unistd.h>

#include "varnix.h"

#define NONE NULL, 0
#define FIVE_NONE NONE, NONE, NONE, NONE, NONE

static const char* const gid = "BANK-20261125-0000000000000001";

typedef int32_t (*service_entry)(VARNIX_SERVICE_PARAMS);

/* A service entry as a server calls it: codes, GID, service id, the channel
 * type and the receiving service; the other columns absent. */
static int service(service_entry entry, const char* svc_id) {
    return entry(-1, "BK", -1, "1", -1, gid, -1, svc_id, -1, NONE, NONE, NONE, /* pid, date, time */
                 "1", -1, NONE, "WEB", -1, "RCV_TRANSFER", -1, NONE, NONE, NONE, NONE, /* 8 head columns */
                 FIVE_NONE, FIVE_NONE, NONE, NONE, NONE, NONE);                      /* 14 tail columns */
}

static int call_start(const char* func) {
    return TRAN_CALLINFO_S(-1, NONE, NONE, NONE, NONE, NONE, NONE, NONE, "bank_server", -1, "bank_server.c", -1,
                           __LINE__, 0, func);
}

static int call_finish(const char* func, int rc) {
    return TRAN_CALLINFO_F(-1, "BK", -1, "1", -1, NONE, NONE, NONE, NONE, NONE, "bank_server", -1, "bank_server.c",
                           -1, __LINE__, rc, func, -1, NULL, 0);
}

/* One statement that runs for `ms` milliseconds, reported once it has run. */
static int statement(const char* sql, int ms) {
    struct timeval start, end;
    gettimeofday(&start, NULL);
    usleep((useconds_t)ms * 1000);
    gettimeofday(&end, NULL);
    return TRAN_SQL_STMT(-1, 0, NONE, NONE, 1, &start, &end, sql, -1);
}

/* A DBIO call running a quick statement, then, when given, a second one of
 * `ms` milliseconds. */
static void dbio(const char* func, const char* sql, const char* slow_sql, int ms) {
    int rc = call_start(func);
    int sql_rc = statement(sql, 5);
    if (slow_sql && sql_rc == 0) sql_rc = statement(slow_sql, ms);
    printf("  %-22s start %d, SQL %d, finish %d\n", func, rc, sql_rc, call_finish(func, 0));
}

/* The transfer's standard telegram (600 bytes): its length, GID, receiving
 * service, processing result and channel type at their places in the header,
 * blanks elsewhere.  The request has result code blank, the response '0'. */
static void telegram(char tel[600], char result) {
    memset(tel, ' ', 600);
    memcpy(tel, "00000600", 8);
    memcpy(tel + 9, gid, strlen(gid));
    memcpy(tel + 132, "RCV_TRANSFER", 12);
    tel[188] = result;
    memcpy(tel + 209, "WEB", 3);
    memcpy(tel + 520, "ACCT 110-234-567890 -> 220-345-678901 KRW 50000", 47);
}

/* Start or end of the outermost service from its telegram, which the library
 * also captures into the full-message file while capture is on. */
static int telegram_entry(int32_t (*entry)(int32_t, const char*, int32_t, const char*, int32_t, const char*, int32_t,
                                           const char*, int32_t, const char*, int32_t, int32_t, int32_t),
                          char result) {
    char tel[600];
    telegram(tel, result);
    return entry(-1, "BK", -1, "1", -1, gid, -1, "ACCT_TRANSFER", -1, tel, sizeof tel, 1, 1);
}

static void debit(void) {
    printf(" TRAN_START ACCT_DEBIT    %d\n", service(TRAN_START, "ACCT_DEBIT"));
    dbio("DBIO_select_balance", "SELECT balance FROM account WHERE acct_no = :1", NULL, 0);
    dbio("DBIO_update_balance", "SELECT balance FROM account WHERE acct_no = :1 FOR UPDATE",
         "UPDATE account SET balance = balance - :1, updated_at = SYSDATE WHERE acct_no = :1", 1500);
    printf(" TRAN_END ACCT_DEBIT      %d\n", service(TRAN_END, "ACCT_DEBIT"));
}

static void credit(void) {
    printf(" TRAN_START ACCT_CREDIT   %d\n", service(TRAN_START, "ACCT_CREDIT"));
    call_start("check_daily_limit");
    printf("  check_daily_limit      finish %d (rc -1)\n", call_finish("check_daily_limit", -1));
    printf(" TRAN_ERROR ACCT_CREDIT   %d\n", service(TRAN_ERROR, "ACCT_CREDIT"));
    printf(" TRAN_ERRINFO             %d\n",
           TRAN_ERRINFO(-1, NONE, NONE, NONE, NONE, NONE, NONE, NONE, "1105", -1, "RCV_TRANSFER", -1, "O", -1,
                        "[E1001] 일일 이체 한도를 초과했습니다", -1));
    printf(" TRAN_END ACCT_CREDIT     %d\n", service(TRAN_END, "ACCT_CREDIT"));
}

int main(void) {
    int rc = TRAN_INIT();
    printf("bank_server: TRAN_INIT %d\n", rc);
    if (rc != 0) return 1;
    printf(" TRAN_STARTX ACCT_TRANSFER %d\n", telegram_entry(TRAN_STARTX, ' '));
    call_start("validate_transfer");
    printf("  validate_transfer      finish %d\n", call_finish("validate_transfer", 0));
    debit();
    credit();
    printf(" TRAN_INFO                %d\n",
           TRAN_INFO(-1, NONE, NONE, NONE, NONE, NONE, NONE, NONE, "credit refused; the debit is reversed", -1));
    printf(" TRAN_ENDX ACCT_TRANSFER  %d\n", telegram_entry(TRAN_ENDX, '0'));
    /* The writer thread looks for captured telegrams every 300 ms and stops at
     * TRAN_DONE, dropping what it has not written: give it time for the
     * response telegram. */
    usleep(400000);
    printf("bank_server: TRAN_DONE %d\n", TRAN_DONE());
    th_join_thread();
    return 0;
}
