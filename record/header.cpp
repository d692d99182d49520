// The common header of every record body, and the local clock it stamps.
#include <sys/time.h>

#include <algorithm>
#include <cstring>
#include <ctime>

#include "core/clock.h"
#include "core/gvar.h"
#include "core/text_out.h"
#include "record/record.h"

namespace varnix {

const char* const api_type_nm[20] = {
    "TRAN_START_API",     "TRAN_END_API",       "TRAN_ERROR_API",     "TRAN_ERRINFO_API",  "TRAN_CALLINFO_S_API",
    "TRAN_CALLINFO_F_API", "TRAN_SQL_STMT_API", "TRAN_INFO_API",      "TRAN_INFO_EX_API",  "TRAN_EVENT_API",
    "TRAN_CLH_START_API", "TRAN_CLH_END_API",   "TRAN_CLH_ERROR_API", "TRAN_FEP_START_API", "TRAN_FEP_END_API",
    "TRAN_FEP_ERROR_API", "TRAN_PT_START_API",  "TRAN_PT_END_API",    "TRAN_WEB_START_API", "TRAN_WEB_END_API",
};

namespace {

// localtime_r serializes every caller on the C library's time-zone lock.
// Offsets change only on minute boundaries, so each thread converts once per
// minute and derives the seconds itself; the date and time digits of the
// last second stamped are kept as well.
struct LocalClock {
    time_t minute_start = -1;
    std::tm minute{};
    time_t stamped = -1;
    char date[8];
    char hhmmss[6];
};
thread_local LocalClock local_clock;

// The last second a date field can hold (9999-12-31 23:59:59 UTC).  A time
// read from a shared block may be any number; it is stamped within
// 1970..9999, where the local clock's arithmetic holds.
constexpr time_t kLastStampSec = 253'402'300'799;

std::tm local_tm(time_t sec) {
    sec = std::clamp<time_t>(sec, 0, kLastStampSec);
    LocalClock& c = local_clock;
    if (c.minute_start < 0 || sec < c.minute_start || sec >= c.minute_start + 60) {
        localtime_r(&sec, &c.minute);
        c.minute_start = sec - c.minute.tm_sec;
        c.minute.tm_sec = 0;
    }
    std::tm tm = c.minute;
    tm.tm_sec = static_cast<int>(sec - c.minute_start);
    return tm;
}

// The digits of a two-digit part of a date or time; every part written here
// is within 0..99.
void put2(char* at, int v) {
    at[0] = static_cast<char>('0' + v / 10 % 10);
    at[1] = static_cast<char>('0' + v % 10);
}

// The clock's date and time digits of second `sec`.
const LocalClock& stamp_of(time_t sec) {
    LocalClock& c = local_clock;
    if (sec == c.stamped) return c;
    const std::tm tm = local_tm(sec);
    char date[kNumberMax + 4];  // "%04d%02d%02d", of which the field keeps 8
    const int n = write_zero_padded(date, tm.tm_year + 1900, 4);
    put2(date + n, tm.tm_mon + 1);
    put2(date + n + 2, tm.tm_mday);
    std::memcpy(c.date, date, sizeof c.date);
    put2(c.hhmmss, tm.tm_hour);
    put2(c.hhmmss + 2, tm.tm_min);
    put2(c.hhmmss + 4, tm.tm_sec);
    c.stamped = sec;
    return c;
}

}  // namespace

namespace {

void put_date(char* body, const timeval& tv) {
    std::memcpy(body + hdr::kDate, stamp_of(tv.tv_sec).date, 8);
    body[hdr::kDate + 8] = ' ';
}

// "%02d%02d%02d%06ld": the microseconds of a time the host preset may be
// anything, and are then written as printf writes them, cut to the field.
void put_time(char* body, const timeval& tv) {
    char* at = body + hdr::kTime;
    std::memcpy(at, stamp_of(tv.tv_sec).hhmmss, 6);
    if (tv.tv_usec >= 0 && tv.tv_usec < 1'000'000) {
        put_number<6>(at + 6, tv.tv_usec);
        return;
    }
    char t[6 + kNumberMax];
    std::memcpy(t, at, 6);
    const int n = 6 + write_zero_padded(t + 6, tv.tv_usec, 6);
    set_log_field(t, n, at, 12, 1);
}

}  // namespace

void write_header(char* body, char log_type, const HeaderArgs& a, Now& now, const timeval* time_of) {
    body[hdr::kLogType] = log_type;
    put_field<2>(body + hdr::kClsCd, a.cls_cd);
    put_field<1>(body + hdr::kDtlCd, a.dtl_cd);
    put_field<32>(body + hdr::kGid, a.gid);
    if (a.pid_str.p) put_field<8>(body + hdr::kPid, a.pid_str);
    if (a.date_str.p) put_field<8>(body + hdr::kDate, a.date_str);
    else put_date(body, now.get());
    if (a.time_str.p) put_field<12>(body + hdr::kTime, a.time_str);
    else put_time(body, time_of ? *time_of : now.get());
}

}  // namespace varnix
