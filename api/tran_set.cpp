// Context setters: facts the application hands over between the records.
//
// Each setter runs on the caller's own context and writes only that thread's
// process-thread entry, without a lock; the collector reads the entry
// concurrently.  Two setters write process globals without a lock:
// TRAN_SET_DBCONN_INFO (meant to be called before TRAN_INIT, which takes the
// names over) and TRAN_SET_SVCTIMEOUT (svctimeout_mark is atomic; once set,
// it stays set until the next initialization).  The SQL error event text is
// formatted into a buffer of the call, so concurrent errors never mix.
// Only TRAN_SET_TIME runs the initialization check: the others keep working
// after a service time-out has stopped tracing.
#include <sys/time.h>

#include <cstdio>
#include <cstring>
#include <ctime>

#include "api/notice.h"
#include "context/hash.h"
#include "core/copy_prefix.h"
#include "core/entry_gate.h"
#include "core/gvar.h"
#include "core/saturate.h"
#include "core/status.h"
#include "varnix.h"

namespace varnix {
namespace {

constexpr int64_t kSqlNoData = 1403;
constexpr int64_t kSqlCodeUnset = 9999;  // what a call start leaves until the first report
constexpr size_t kSqlErrMsgMax = 100;
constexpr size_t kDbNameMax = 10;
constexpr size_t kEventTextSize = 1024;
constexpr size_t kNoticeTextSize = 1024;  // the longest time-out notice is well below this
constexpr char kNotSubjectToFlags = '_';  // API type 95: checked, whatever the record classes
constexpr char kDbioKind = 'B';

// Sends event 1810 for an SQL error of the open DBIO call; its result is the
// event's own business.
void report_sql_error(int32_t tid, const SvcLevel& level, const CALL_LVL& call, int64_t sqlcode, const char* msg,
                      int line) {
    char text[kEventTextSize];
    std::snprintf(text, sizeof text, "ORA에러발생, [%.*s:%d] SQLCODE(%ld) %s", static_cast<int>(sizeof call.func_nm),
                  call.func_nm, line, static_cast<long>(sqlcode), msg);
    Notice n;
    n.gid = level_gid(level);
    n.svc_id = level_svc_id(level);
    n.code = {"1810", -1};
    n.recv_svc_cd = {level.evt_cd, sizeof level.evt_cd};
    n.chnl_class = {"", -1};
    n.msg_text = {text, -1};
    (void)tran_event(tid, n);
}

// Seconds since `since`; 0 when the clock cannot be read.
long seconds_since(time_t since) {
    timeval now;
    if (gettimeofday(&now, nullptr) != 0) return 0;
    return static_cast<long>(sat_sub<int64_t>(now.tv_sec, since));
}

void format_timeout_notice(const PTRC_HASH& e, char (&text)[kNoticeTextSize]) {
    const int svc_w = static_cast<int>(sizeof e.main_svc_id);
    const CALL_LVL* call = innermost_call(e);
    if (!call) {
        std::snprintf(text, sizeof text, "TPSVCTIMEOUT(tpsvctimeout call)이 감지되었습니다.(경과시간 %ld sec) [%.*s]",
                      seconds_since(e.svc_start_tv.tv_sec), svc_w, e.main_svc_id);
        return;
    }
    std::tm start{};
    time_t start_sec = call->start_tv.tv_sec;
    if (!localtime_r(&start_sec, &start)) start = std::tm{};
    std::snprintf(text, sizeof text,
                  "TPSVCTIMEOUT(tpsvctimeout call)이 감지되었습니다.(경과시간 %ld sec) [%.*s][#%d-%c%d] %.*s at %.*s "
                  "(%.*s::%05d)[%02d:%02d:%02d.%06ld]",
                  seconds_since(start_sec), svc_w, e.main_svc_id, e.trc_lvl, call->call_kind, call->call_seq,
                  static_cast<int>(sizeof call->func_nm), call->func_nm, static_cast<int>(sizeof call->module_nm),
                  call->module_nm, static_cast<int>(sizeof call->source_nm), call->source_nm, call->line_no,
                  start.tm_hour, start.tm_min, start.tm_sec, static_cast<long>(call->start_tv.tv_usec));
}

}  // namespace
}  // namespace varnix

using namespace varnix;

extern "C" {

int32_t TRAN_SET_TIME(int32_t tid) {
    const varnix::EntryGate gate;
    if (int rc = check_gvar(kNotSubjectToFlags); rc != kOk) return rc;
    MTR_CXT_VAR* cxt = nullptr;
    if (int rc = context_with_entry(tid, &cxt); rc != kOk) return rc;
    timeval now;
    if (gettimeofday(&now, nullptr) == 0) cxt->ptrc->preset_start_tv = now;
    return kOk;
}

int32_t TRAN_CHECK_SQL_TIME(int32_t tid, int64_t elapsed_us) {
    const varnix::EntryGate gate;
    MTR_CXT_VAR* cxt = nullptr;
    if (int rc = context_with_entry(tid, &cxt); rc != kOk) return rc;
    return elapsed_us < cxt->ptrc->sql_trc_limit ? -1 : kOk;
}

int32_t TRAN_GET_HASH_CODE(int64_t, int64_t, int32_t, const char* text) {
    if (!text) return 0;
    return static_cast<int32_t>(get_hash_code(text, static_cast<int>(std::strlen(text))));
}

int32_t TRAN_SET_DBIO_STS(int32_t tid, int32_t sts) {
    const varnix::EntryGate gate;
    MTR_CXT_VAR* cxt = nullptr;
    if (int rc = context_with_entry(tid, &cxt); rc != kOk) return rc;
    cxt->ptrc->dbio_sts = static_cast<uint8_t>(sts);
    return kOk;
}

int32_t TRAN_SET_SQLCA_INFO(int32_t tid, int64_t sqlcode, const char* errmsg, int16_t line) {
    const varnix::EntryGate gate;
    MTR_CXT_VAR* cxt = nullptr;
    if (int rc = context_with_entry(tid, &cxt); rc != kOk) return rc;
    const SvcLevel* level = current_svc_level(*cxt);
    if (!level) return VARNIX_RC_SVC_DEPTH;
    PTRC_HASH& e = *cxt->ptrc;
    const CALL_LVL* call = innermost_call(e);
    if (!call) return VARNIX_RC_CALL_DEPTH;
    if (call->call_kind != kDbioKind) return kOk;
    if (sqlcode == 0 || sqlcode == kSqlNoData) {
        if (e.sql_code == kSqlCodeUnset) e.sql_code = sqlcode;
        return kOk;
    }
    if (!errmsg) errmsg = "";
    e.sql_code = sqlcode;
    // NULs fill the field after a short text; a long one stays unterminated.
    std::strncpy(e.sql_err_msg, errmsg, kSqlErrMsgMax);
    report_sql_error(tid, *level, *call, sqlcode, errmsg, line);
    return kOk;
}

int32_t TRAN_SET_DBCONN_INFO(int32_t, const char* db_user, const char* db_sid) {
    if (db_user) copy_prefix(init_db_user, db_user, kDbNameMax);
    if (db_sid) copy_prefix(init_db_sid, db_sid, kDbNameMax);
    return kOk;
}

int32_t TRAN_SET_FETCH_INFO(int32_t tid, int32_t rows, int64_t fetch_us, int16_t line) {
    const varnix::EntryGate gate;
    MTR_CXT_VAR* cxt = nullptr;
    if (int rc = context_with_entry(tid, &cxt); rc != kOk) return rc;
    PTRC_HASH& e = *cxt->ptrc;
    // The figures wrap at 32 bits, as the collector reads them.
    const uint32_t time_low = static_cast<uint32_t>(fetch_us);
    e.fetch_rows_sum = static_cast<int32_t>(static_cast<uint32_t>(e.fetch_rows_sum) + static_cast<uint32_t>(rows));
    e.fetch_time_sum = static_cast<int32_t>(static_cast<uint32_t>(e.fetch_time_sum) + time_low);
    e.fetch_last[0] = rows;
    e.fetch_last[1] = static_cast<int32_t>(time_low);
    e.fetch_last[2] = line;
    e.fetch_cnt = static_cast<int32_t>(static_cast<uint32_t>(e.fetch_cnt) + 1u);
    return kOk;
}

// Called from the application's tpsvctimeout routine: records the time-out,
// then stops tracing in the whole process.
int32_t TRAN_SET_SVCTIMEOUT(int32_t tid) {
    const varnix::EntryGate gate;
    MTR_CXT_VAR* cxt = nullptr;
    if (int rc = context_with_entry(tid, &cxt); rc != kOk) return rc;
    cxt->ptrc->svctimeout_flag = 1;
    char text[kNoticeTextSize];
    format_timeout_notice(*cxt->ptrc, text);
    Notice n;
    n.msg_text = {text, -1};
    (void)tran_info(tid, n);  // the time-out stops tracing whether or not the notice went out
    gvar.svctimeout_mark.store(1, std::memory_order_relaxed);
    return kOk;
}

}  // extern "C"
