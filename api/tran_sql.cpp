// SQL tracing.  A DBIO call keeps up to five statement texts in the thread's
// process-thread entry (consecutive repeats merged into one slot), where the
// collector can watch them; when the call finishes, every statement slower
// than the service's SQL limit goes out as one or more 'Q' records.  Those are
// built in the context's secondary record, so the call record being built in
// the primary one stays intact.  Only the owning thread writes its slots and
// its secondary record; the collector only reads the entry.
#include "api/tran_sql.h"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <iterator>

#include "api/notice.h"
#include "core/encoding_util.h"
#include "core/entry_gate.h"
#include "core/gvar.h"
#include "core/log_printf.h"
#include "core/status.h"
#include "core/text_out.h"
#include "record/record.h"
#include "varnix.h"

namespace varnix {
namespace {

constexpr char kLogType = 'Q';
constexpr int kSqlTextMax = 8192;  // bytes of a statement kept in a slot
constexpr int kTextField = 350;    // piece header and piece, at body offset hdr::kEnd
constexpr uint32_t kBodyLen = hdr::kEnd + kTextField + 1;
constexpr int kUsecTimes = 9999;  // sql_no telling that the times are microsecond counts
constexpr int64_t kUsecPerSec = 1'000'000;
constexpr int kSidWidth = 200;

// One reported statement.
struct Stmt {
    const char* text;
    int len;  // bytes kept, cut on a character boundary
    uint16_t no;
    timeval start, end;
};

// Bytes of `text` to keep: at most kSqlTextMax, and no byte beyond them is
// read, so a text that fills them is taken to go on and is cut on a character
// boundary.  Statements are always cut by the EUC-KR rule: it only drops a
// trailing run of Hangul lead-range bytes, so a text in another encoding loses
// at most the bytes of one character, never its whole tail.
int measure(const char* text) {
    if (!text) return 0;
    const int n = static_cast<int>(strnlen(text, kSqlTextMax));
    return n < kSqlTextMax ? n : hangul_euckr(text, n, n);
}

// A time the caller gives, else now.
timeval read_time(const void* p, bool usec_count, Now& now) {
    if (!p) return now.get();
    timeval tv{};
    if (usec_count) {
        int64_t us;
        std::memcpy(&us, p, sizeof us);
        tv.tv_sec = us / kUsecPerSec;
        tv.tv_usec = us % kUsecPerSec;
    } else {
        std::memcpy(&tv, p, sizeof tv);
    }
    return tv;
}

// The times come from the caller as they are: unsigned arithmetic keeps any
// pair of them defined.
int64_t elapsed_us(const timeval& start, const timeval& end) {
    const auto u = [](int64_t v) { return static_cast<uint64_t>(v); };
    return static_cast<int64_t>((u(end.tv_sec) - u(start.tv_sec)) * u(kUsecPerSec) +
                                (u(end.tv_usec) - u(start.tv_usec)));
}

// The call level of the DBIO call that SQL statements belong to, or the status
// that says why there is none.
int open_dbio(MTR_CXT_VAR& cxt, const CALL_LVL** out) {
    if (!cxt.ptrc) return VARNIX_RC_PTRC_FULL;
    if (!current_svc_level(cxt)) return VARNIX_RC_SVC_DEPTH;
    const CALL_LVL* call = innermost_call(*cxt.ptrc);
    if (!call) return VARNIX_RC_CALL_DEPTH;
    if (call->call_kind != 'B') return VARNIX_RC_SQL_NO_DBIO;
    *out = call;
    return kOk;
}

void fill_slot(SQL_SLOT& slot, const CALL_LVL& call, const Stmt& st) {
    slot.sql_len = static_cast<uint16_t>(st.len);
    slot.sql_no = st.no;
    slot.start_tv = st.start;
    slot.end_tv = st.end;
    std::memcpy(slot.func_nm, call.func_nm, sizeof slot.func_nm);
    if (st.len > 0) std::memcpy(slot.sql_text, st.text, static_cast<size_t>(st.len));
    slot.sql_text[st.len] = '\0';
    slot.rep_cnt = 1;
}

bool same_text(const SQL_SLOT& slot, const Stmt& st) {
    return st.len == 0 || std::memcmp(slot.sql_text, st.text, static_cast<size_t>(st.len)) == 0;
}

// The record header is written once per DBIO call, with its first statement.
void write_sql_header(MTR_CXT_VAR& cxt, const SvcLevel& level, Text date_str, Text time_str, Now& now) {
    write_header(cxt.log_body2, kLogType, HeaderArgs{{}, {}, level_gid(level), {}, date_str, time_str}, now);
}

// `now`: the clock as the statement's times took it, if they did.
int report(MTR_CXT_VAR& cxt, const CALL_LVL& call, const Stmt& st, Text date_str, Text time_str, Now& now) {
    const SvcLevel& level = *current_svc_level(cxt);
    const Text svc_id = level_svc_id(level);
    if (int rc = trace_validate(cxt, kLogType, kTranSqlStmtApi, cxt.log_body2, svc_id.p, svc_id.len);
        rc != kOk)
        return rc;
    PTRC_HASH& e = *cxt.ptrc;
    const int cnt = e.sql_rec_cnt;
    if (cnt <= 0) {
        write_sql_header(cxt, level, date_str, time_str, now);
        fill_slot(e.sql_slot[0], call, st);
        e.sql_rec_cnt = 1;
        return kOk;
    }
    SQL_SLOT& last = e.sql_slot[std::min(cnt, VARNIX_SQL_SLOT_CNT) - 1];
    if (last.sql_len == st.len && last.sql_no == st.no) {
        // The same statement again: one slot spans the repeats.  Another text
        // of the same number and length is not kept.
        if (same_text(last, st)) {
            last.end_tv = st.end;
            ++last.rep_cnt;
        }
        return kOk;
    }
    if (cnt >= VARNIX_SQL_SLOT_CNT) return VARNIX_RC_SQL_LIMIT;
    fill_slot(e.sql_slot[cnt], call, st);
    e.sql_rec_cnt = cnt + 1;
    return kOk;
}

// The function name shows up to its first comma, closed by ')', so that the
// name adds no field to the comma-separated piece header.
void cut_at_comma(SQL_SLOT& slot) {
    slot.func_nm_end = '\0';
    const size_t n = strnlen(slot.func_nm, sizeof slot.func_nm);
    auto* comma = static_cast<char*>(std::memchr(slot.func_nm, ',', n));
    if (!comma) return;
    *comma = ')';
    if (comma + 1 < slot.func_nm + sizeof slot.func_nm) comma[1] = '\0';
}

// The piece header: "slot,count,piece," and, on the first piece, the
// repeats, the elapsed time, the statement number and the function name.
// Its longest form (five numbers, a time and a 70-byte name) is far below
// 128 bytes, so the text always has room behind it.
TextOut<128> piece_header(const SQL_SLOT& slot, int slot_no, int cnt, int piece) {
    TextOut<128> h;
    h.number(slot_no).ch(',').number(cnt).ch(',').number(piece).ch(',');
    if (piece != 1) return h;
    const int64_t us = elapsed_us(slot.start_tv, slot.end_tv);
    h.number(slot.rep_cnt).ch(',').secs(us / kUsecPerSec, us % kUsecPerSec).ch(',').number(slot.sql_no).ch(',');
    h.text(std::string_view(slot.func_nm, strnlen(slot.func_nm, sizeof slot.func_nm))).ch(',');
    return h;
}

bool is_cut_byte(char c) { return static_cast<unsigned char>(c) >= 0xB0 && static_cast<unsigned char>(c) <= 0xC8; }

// Bytes of `text` that go into a piece with `room` bytes for text: cut on a
// character boundary when the rest does not fit.  A piece that is cut short
// is space-padded, and only the character rule shortens one, so the piece
// after it begins with a byte the rule drops (0xB0..0xC8).  A reader tells
// padding from the text's own spaces by that byte: whenever the first
// non-space byte after a cut is such a byte, the piece before it ends on a
// non-space byte, its own spaces going into the next piece; a piece of
// spaces alone, unless it is the last, fills its room.
int piece_length(const char* text, int remaining, int room) {
    if (remaining <= room) return remaining;
    int n = hcut(text, remaining, room, kEncEucKr);
    if (n < 1) {
        n = room;
        log_printf("<!> send_len(%d) length error", n);
    }
    const char* after = std::find_if(text + n, text + remaining, [](char c) { return c != ' '; });
    if (after == text + remaining || !is_cut_byte(*after)) return n;
    const char* last = std::find_if(std::make_reverse_iterator(text + n), std::make_reverse_iterator(text),
                                    [](char c) { return c != ' '; })
                           .base();
    // Spaces alone fill the whole room, even when that splits the character
    // after them.
    return last == text ? room : static_cast<int>(last - text);
}

// Sends one statement as pieces cut on character boundaries; the last send's
// result.
int send_slot(MTR_CXT_VAR& cxt, SQL_SLOT& slot, int slot_no, int cnt) {
    char* text_field = cxt.log_body2 + hdr::kEnd;
    const int len = std::min<int>(slot.sql_len, kSqlTextMax);
    cut_at_comma(slot);
    int rc = kOk;
    for (int offset = 0, piece = 1; offset < len; ++piece) {
        const TextOut<128> head = piece_header(slot, slot_no, cnt, piece);
        const int h = head.size();
        const int room = kTextField - h;
        const int n = piece_length(slot.sql_text + offset, len - offset, room);
        std::memcpy(text_field, head.data(), static_cast<size_t>(h));
        set_log_field(slot.sql_text + offset, n, text_field + h, room, 1);
        *cxt.log_len2 = kBodyLen;
        rc = tran_logb(cxt, cxt.log_rec2);
        offset += n;
    }
    return rc;
}

int send_kept(MTR_CXT_VAR& cxt) {
    PTRC_HASH& e = *cxt.ptrc;
    const int cnt = std::clamp(e.sql_rec_cnt, 0, VARNIX_SQL_SLOT_CNT);
    int rc = kOk;
    for (int i = 0; i < cnt; ++i) {
        SQL_SLOT& slot = e.sql_slot[i];
        if (elapsed_us(slot.start_tv, slot.end_tv) >= e.sql_trc_limit) rc = send_slot(cxt, slot, i + 1, cnt);
    }
    return rc;
}

struct SqlStmtArgs {
    int32_t mode;
    Text date_str, time_str;
    int32_t sql_no;
    const void* start;
    const void* end;
    const char* text;
};

int tran_sql_stmt(int32_t tid, const SqlStmtArgs& a) {
    MTR_CXT_VAR* cxt = nullptr;
    if (int rc = record_context(kLogType, tid, cxt); rc != kOk) return rc;
    const CALL_LVL* call = nullptr;
    if (int rc = open_dbio(*cxt, &call); rc != kOk) return rc;
    switch (a.mode) {
        case 0: {
            const bool usec = a.sql_no == kUsecTimes;
            Now now;
            const Stmt st{a.text, measure(a.text), static_cast<uint16_t>(a.sql_no), read_time(a.start, usec, now),
                          read_time(a.end, usec, now)};
            return report(*cxt, *call, st, a.date_str, a.time_str, now);
        }
        case 1: return send_kept(*cxt);
        default: return kOk;
    }
}

int tran_sql_id(int32_t tid, Text sql_id) {
    MTR_CXT_VAR* cxt = nullptr;
    if (int rc = record_context(kLogType, tid, cxt); rc != kOk) return rc;
    if (!cxt->ptrc) return VARNIX_RC_PTRC_FULL;
    // The field's trailing space lands in the entry's reserved bytes after it.
    char* field = reinterpret_cast<char*>(cxt->ptrc) + offsetof(PTRC_HASH, sql_id);
    set_log_field(sql_id, field, kSidWidth);
    return kOk;
}

}  // namespace

int tran_sql_stmt_close(MTR_CXT_VAR& cxt) {
    if (int rc = check_gvar(kLogType); rc != kOk) return rc;
    const CALL_LVL* call = nullptr;
    if (int rc = open_dbio(cxt, &call); rc != kOk) return rc;
    return send_kept(cxt);
}

}  // namespace varnix

extern "C" {

int32_t TRAN_SQL_STMT(int32_t tid, int32_t mode, const char* date_str, int32_t date_str_len, const char* time_str,
                      int32_t time_str_len, int32_t sql_no, const void* start_tm, const void* end_tm,
                      const char* sql_text, int32_t /*sql_text_len: the text is measured*/) {
    const varnix::EntryGate gate;
    return varnix::tran_sql_stmt(tid, {mode, {date_str, date_str_len}, {time_str, time_str_len}, sql_no, start_tm,
                                       end_tm, sql_text});
}

int32_t TRAN_SQL_ID(int32_t tid, const char* sql_id, int32_t sql_id_len) {
    const varnix::EntryGate gate;
    return varnix::tran_sql_id(tid, {sql_id, sql_id_len});
}

}  // extern "C"
