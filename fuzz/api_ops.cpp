#include "fuzz/api_ops.h"

#include <sys/time.h>

#include <iterator>
#include <tuple>
#include <utility>

#include "varnix.h"

namespace varnix::fuzz {
namespace {

// The record-header pairs after the thread id: codes, GID, service id,
// process id, date, time.
struct Head {
    Text t[7];
};

Head head(Args& a) {
    Head h;
    for (Text& t : h.t) t = a.text();
    return h;
}

template <size_t N>
void texts(Args& a, Text (&t)[N]) {
    for (Text& x : t) x = a.text();
}

#define VX_HEAD(h)                                                                                          \
    h.t[0].p, h.t[0].len, h.t[1].p, h.t[1].len, h.t[2].p, h.t[2].len, h.t[3].p, h.t[3].len, h.t[4].p, h.t[4].len, \
        h.t[5].p, h.t[5].len, h.t[6].p, h.t[6].len

using ServiceEntry = int32_t (*)(VARNIX_SERVICE_PARAMS);
using PtEntry = int32_t (*)(VARNIX_PT_SERVICE_PARAMS);
using NoticeEntry = int32_t (*)(VARNIX_NOTICE_PARAMS);

// The pointer and length of each text, in order.
template <size_t... I>
auto pairs(const Text* t, std::index_sequence<I...>) {
    return std::tuple_cat(std::make_tuple(t[I].p, t[I].len)...);
}

// An entry taking the thread, the seven header texts and `N` more texts.
template <size_t N, typename Entry>
int32_t with_texts(Entry f, Args& a) {
    const int32_t tid = a.tid();
    Text t[std::size(Head{}.t) + N];
    texts(a, t);
    return std::apply(f, std::tuple_cat(std::make_tuple(tid), pairs(t, std::make_index_sequence<std::size(t)>())));
}

int32_t service(ServiceEntry f, Args& a) { return with_texts<22>(f, a); }
int32_t pt_service(PtEntry f, Args& a) { return with_texts<13>(f, a); }
int32_t notice(NoticeEntry f, Args& a) { return with_texts<4>(f, a); }

int32_t op_start(Args& a) { return service(TRAN_START, a); }
int32_t op_end(Args& a) { return service(TRAN_END, a); }
int32_t op_error(Args& a) { return service(TRAN_ERROR, a); }
int32_t op_pt_start(Args& a) { return pt_service(TRAN_PT_START, a); }
int32_t op_pt_end(Args& a) { return pt_service(TRAN_PT_END, a); }
int32_t op_clh_start(Args& a) { return service(TRAN_CLH_START, a); }
int32_t op_clh_end(Args& a) { return service(TRAN_CLH_END, a); }
int32_t op_clh_error(Args& a) { return service(TRAN_CLH_ERROR, a); }
int32_t op_web_start(Args& a) { return pt_service(TRAN_WEB_START, a); }  // the same five-text tail
int32_t op_web_end(Args& a) { return pt_service(TRAN_WEB_END, a); }
int32_t op_errinfo(Args& a) { return notice(TRAN_ERRINFO, a); }
int32_t op_event(Args& a) { return notice(TRAN_EVENT, a); }

int32_t op_callinfo_s(Args& a) {
    int32_t tid = a.tid();
    Head h = head(a);
    Text module = a.cstr(), source = a.cstr();
    int32_t line = a.in().number<int32_t>();
    int32_t opt = (a.in().byte() & 1) ? -1 : a.in().number<int32_t>();
    return TRAN_CALLINFO_S(tid, VX_HEAD(h), module.p, module.len, source.p, source.len, line, opt, a.cstr().p);
}

int32_t op_callinfo_f(Args& a) {
    int32_t tid = a.tid();
    Head h = head(a);
    Text module = a.cstr(), source = a.cstr();
    int32_t line = a.in().number<int32_t>();
    int32_t rc = static_cast<int8_t>(a.in().byte());
    if (rc == -128) rc = a.in().number<int32_t>();  // now and then a code beyond -127..127
    Text func = a.cstr(), kind = a.cstr();
    return TRAN_CALLINFO_F(tid, VX_HEAD(h), module.p, module.len, source.p, source.len, line, rc, func.p, func.len,
                           kind.p, kind.len);
}

// A start or end time: now (null), a struct timeval, or for statement 9999
// a microsecond count; any bit pattern.
const void* sql_time(Args& a) { return (a.in().byte() & 1) ? nullptr : a.blob(sizeof(timeval)); }

int32_t op_sql_stmt(Args& a) {
    int32_t tid = a.tid();
    int32_t mode = static_cast<int8_t>(a.in().byte());
    if (mode >= 0) mode %= 3;
    Text date = a.text(), time = a.text();
    int32_t sql_no = (a.in().byte() & 1) ? 9999 : a.in().number<int32_t>();
    const void* start = sql_time(a);
    const void* end = sql_time(a);
    Text sql = a.cstr();
    return TRAN_SQL_STMT(tid, mode, date.p, date.len, time.p, time.len, sql_no, start, end, sql.p, sql.len);
}

int32_t op_sql_id(Args& a) {
    int32_t tid = a.tid();
    Text id = a.text();
    return TRAN_SQL_ID(tid, id.p, id.len);
}

int32_t op_info(Args& a) {
    int32_t tid = a.tid();
    Head h = head(a);
    Text msg = a.text();
    return TRAN_INFO(tid, VX_HEAD(h), msg.p, msg.len);
}

int32_t op_info_ex(Args& a) {
    int32_t tid = a.tid();
    Head h = head(a);
    Text code = a.text(), msg = a.text();
    return TRAN_INFO_EX(tid, VX_HEAD(h), code.p, code.len, msg.p, msg.len);
}

int32_t op_set_time(Args& a) { return TRAN_SET_TIME(a.tid()); }

int32_t op_check_sql_time(Args& a) {
    int32_t tid = a.tid();
    return TRAN_CHECK_SQL_TIME(tid, a.in().number<int64_t>());
}

int32_t op_get_hash_code(Args& a) { return TRAN_GET_HASH_CODE(0, 0, 0, a.cstr().p); }

int32_t op_set_dbio_sts(Args& a) {
    int32_t tid = a.tid();
    return TRAN_SET_DBIO_STS(tid, a.in().number<int32_t>());
}

int32_t op_set_sqlca_info(Args& a) {
    int32_t tid = a.tid();
    uint8_t pick = a.in().byte();
    // No error, no data found, or any code.
    int64_t code = pick % 3 == 0 ? 0 : pick % 3 == 1 ? 1403 : a.in().number<int64_t>();
    const char* msg = a.cstr().p;
    return TRAN_SET_SQLCA_INFO(tid, code, msg, a.in().number<int16_t>());
}

int32_t op_set_dbconn_info(Args& a) {
    int32_t tid = a.tid();
    const char* user = a.cstr().p;
    return TRAN_SET_DBCONN_INFO(tid, user, a.cstr().p);
}

int32_t op_set_fetch_info(Args& a) {
    int32_t tid = a.tid();
    int32_t rows = a.in().number<int32_t>();
    int64_t us = a.in().number<int64_t>();
    return TRAN_SET_FETCH_INFO(tid, rows, us, a.in().number<int16_t>());
}

int32_t op_set_svctimeout(Args& a) { return TRAN_SET_SVCTIMEOUT(a.tid()); }

#undef VX_HEAD

constexpr ApiOp kOps[] = {
    {op_start, false},          {op_end, false},           {op_error, false},         {op_pt_start, false},
    {op_pt_end, false},         {op_callinfo_s, false},    {op_callinfo_f, false},    {op_sql_stmt, false},
    {op_sql_id, false},         {op_info, false},          {op_info_ex, false},       {op_errinfo, false},
    {op_event, false},          {op_set_time, false},      {op_check_sql_time, false}, {op_get_hash_code, false},
    {op_set_dbio_sts, false},   {op_set_sqlca_info, false}, {op_set_dbconn_info, false}, {op_set_fetch_info, false},
    {op_set_svctimeout, true}, {op_clh_start, false},     {op_clh_end, false},       {op_clh_error, false},
    {op_web_start, false},      {op_web_end, false},
};

}  // namespace

const ApiOp& api_op(uint8_t code) { return kOps[code % std::size(kOps)]; }

}  // namespace varnix::fuzz
