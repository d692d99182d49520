// The standard-telegram entries TRAN_STARTX and TRAN_ENDX: a server hands
// over its telegram, and the entries take the service's columns from it,
// choose the GID the trace uses, capture the telegram, send client handlers
// to their own entries and, at a failed end, record the error and the
// telegram's messages before the end.  The field table is read on every
// call, every text is built on the calling thread's stack, and no read
// reaches past the telegram (record/tmsg_view.h).
#include <algorithm>
#include <cstring>
#include <string_view>
#include <utility>

#include "api/notice.h"
#include "api/service.h"
#include "api/std_tmsg.h"
#include "core/entry_gate.h"
#include "core/gvar.h"
#include "core/log_printf.h"
#include "core/status.h"
#include "core/text_out.h"
#include "varnix.h"

namespace varnix {
namespace {

constexpr int kColumns = 22;
constexpr int kFlagColumn = 0;
constexpr int kBranchColumn = 1;
constexpr int kTmsgLenColumn = 8;
constexpr int kGidWidth = 32;  // a record's GID field: how far a GID without length is read
constexpr int kGidPrinted = 30;
constexpr int kSnapshotKeyMax = 15;      // the longest trade code a snapshot is armed with
constexpr int kSvcIdMeasureMax = 64;     // how far a service id is measured: further than any field shows
constexpr int kCountMax = 99;            // counts have two digits
constexpr int32_t kWalkAfterLen = 1084;  // only a longer telegram carries the error-message part
constexpr int8_t kCaptureStart = 100;
constexpr int8_t kCaptureEnd = 101;

// The table entries of the columns by their place in the service record's
// tail; null where a column is built otherwise or absent.
using TableEntry = int32_t[2];
const TableEntry* const kColumnEntry[kColumns] = {
    nullptr,           nullptr,           &_CHNL_TYP_CD,     &_RECV_SVC_CD,     &_SCRN_ID,
    &_EMP_NO,          &_PROC_RSLT_DV_CD, &_STD_TMSG_ERR_CD, &_STD_TMSG_LEN,    &_IPV6_ADR,
    &_FST_TRMS_SYS_CD, &_TRMS_SYS_CD,     &_RQST_RSPS_DV_CD, &_TRSC_SYNC_DV_CD, &_RSLT_RECV_SVC_CD,
    &_EAI_INTF_ID,     &_DSBL_SYS_CD,     &_OTSD_INST_CD,    &_OTSD_BIZ_CD,     &_FST_TRMS_MDCL_CTT,
    nullptr,           nullptr,
};

// The fixed layout of the older telegram.  Its fields have no lengths: each
// is read up to its column's width or a NUL.
namespace fixed {
constexpr int kColumnAt[kColumns] = {-1,  -1,  253, 160, 467, 386, 220, 236, -1,  43, 98,
                                     102, 122, 124, 173, 186, 232, 514, 519, 560, -1, -1};
constexpr int kGid = 10;
constexpr int kGidCompared = 30;
constexpr int kGroupCompany = 402, kGroupCompanyLen = 2;
constexpr int kBranch = 405, kBranchLen = 4;
constexpr int kTmsgLenDigits = 8;  // the binary length at 0, as "%08d"
}  // namespace fixed

std::string_view view(Text t) { return {t.p, static_cast<size_t>(t.len)}; }

// A text as "%.*s" with precision `max` reads it: up to its NUL, never
// further than `max` nor than the length it came with.
Text c_prefix(Text t, int64_t max) {
    if (!t.p || max <= 0) return {"", 0};
    const int64_t cap = t.len >= 0 ? std::min<int64_t>(t.len, max) : max;
    return {t.p, static_cast<int32_t>(strnlen(t.p, static_cast<size_t>(cap)))};
}

// strncmp(a, b, width) == 0 over what the two texts hold; no width matches
// nothing.
bool same_text(Text a, Text b, int64_t width) {
    return width > 0 && view(c_prefix(a, width)) == view(c_prefix(b, width));
}

bool failed_result(Text code) { return code.len > 0 && result_error_no(code.p[0]); }

// The arguments of the two entries.
struct StdCall {
    int32_t tid;
    Text cls_cd, dtl_cd, gid, svc_id;
    const char* tmsg;  // null: no telegram
    int32_t tmsg_len;  // as given: a measured telegram carries no error-message part
    TmsgView t;
    bool standard;
    char flag;
    std::string_view svc;  // the service id's string, for its prefixes and the adjusted length

    bool svc_begins(std::string_view prefix) const { return svc.starts_with(prefix); }
    // A service id of exactly 12 characters is traced by its first 9.
    Text adjusted_svc() const { return {svc_id.p, static_cast<int32_t>(svc.size() == 12 ? 9 : svc.size())}; }
};

// The service id's string: up to its NUL, whatever length came with it (a
// 12-character id passed as 9 is still 12 characters long), read no further
// than kSvcIdMeasureMax.
std::string_view svc_string(Text svc) {
    if (!svc.p) return {};
    return {svc.p, strnlen(svc.p, kSvcIdMeasureMax)};
}

// strncmp(a, b, width) == 0 over what the two texts hold, as same_text
// decides it, comparing character by character: for short texts that differ
// early, such as channel types.
bool same_short_text(Text a, Text b, int64_t width) {
    if (width <= 0) return false;
    const auto cap = [width](Text t) -> int64_t {
        return !t.p ? 0 : t.len >= 0 ? std::min<int64_t>(t.len, width) : width;
    };
    const int64_t ca = cap(a), cb = cap(b);
    for (int64_t i = 0;; ++i) {
        const char x = i < ca ? a.p[i] : '\0';
        const char y = i < cb ? b.p[i] : '\0';
        if (x != y) return false;
        if (x == '\0') return true;
    }
}

bool internal_channel(Text chnl, int64_t width) {
    return same_short_text(chnl, {"ICT", 3}, width) || same_short_text(chnl, {"ICC", 3}, width);
}

// The columns the table places, by their place in the tail.
template <size_t... I>
void table_columns(const TmsgView& t, Text (&cols)[kColumns], std::index_sequence<I...>) {
    ((kColumnEntry[I] ? void(cols[I] = table_span(t, *kColumnEntry[I])) : void()), ...);
}

// A telegram's columns, GID and channel as the service entries take them.
// The columns are read once, as the record needs them all; the GID's forms
// and the snapshot key only when asked for.  Texts point into the telegram
// or into this object, which therefore stays where it was made.
class TmsgColumns {
public:
    explicit TmsgColumns(const StdCall& c) : t_(c.t), flag_(c.flag) {
        cols_[kFlagColumn] = {&flag_, 1};
        const TmsgField gid = table_field(_GLBL_ID);
        if (c.standard) {
            table_columns(t_, cols_, std::make_index_sequence<kColumns>{});
            const TmsgField grco = table_field(_TRSC_GRCO_CD);
            cols_[kBranchColumn] = t_.span(grco.off, grco.len + table_field(_TRSC_BR_NO).len);
            const TmsgField chnl = table_field(_CHNL_TYP_CD);
            gid_off_ = gid.off;
            gid_compared_ = gid.len - 2;
            internal_ = internal_channel(t_.span(chnl.off, chnl.len), chnl.len);
            snapshot_key_ = t_.span(chnl.off, kSnapshotKeyMax);
            result_ = table_span(t_, _PROC_RSLT_DV_CD);
        } else {
            for (int i = 0; i < kColumns; ++i)
                if (fixed::kColumnAt[i] >= 0)
                    cols_[i] = t_.text(fixed::kColumnAt[i], kStandardService.tail[static_cast<size_t>(i)].width);
            fixed_branch();
            fixed_tmsg_len();
            gid_off_ = fixed::kGid;
            gid_compared_ = fixed::kGidCompared;
            internal_ = internal_channel(cols_[kTailChnlTypCd], 3);
            snapshot_key_ = t_.text(fixed::kColumnAt[kTailChnlTypCd], kSnapshotKeyMax);
            result_ = t_.span(fixed::kColumnAt[6], 1);
        }
        gid_len_ = gid.len;
    }
    TmsgColumns(const TmsgColumns&) = delete;
    TmsgColumns& operator=(const TmsgColumns&) = delete;

    std::span<const Text> tail() const { return cols_; }
    Text column(int i) const { return cols_[i]; }
    // The telegram's GID: as long as its field (the start's), up to its NUL
    // (the end's and the notices'), as printed.
    Text gid() const { return t_.span(gid_off_, gid_len_); }
    Text gid_text() const { return t_.text(gid_off_, kGidWidth); }
    Text gid_printed() const { return t_.text(gid_off_, kGidPrinted); }
    int64_t gid_compared() const { return gid_compared_; }
    // An ICT or ICC channel: the telegram's own GID is the trace's.
    bool internal() const { return internal_; }
    Text snapshot_key() const { return snapshot_key_; }
    bool failed() const { return failed_result(result_); }
    // The processing result code; only called once failed() said so.
    char result() const { return result_.p[0]; }

private:
    // The 2 group-company bytes and the 4 branch bytes, read as one text.
    void fixed_branch() {
        const Text grco = t_.span(fixed::kGroupCompany, fixed::kGroupCompanyLen);
        const Text br = t_.span(fixed::kBranch, fixed::kBranchLen);
        std::memcpy(branch_, grco.p, static_cast<size_t>(grco.len));
        std::memcpy(branch_ + grco.len, br.p, static_cast<size_t>(br.len));
        cols_[kBranchColumn] = {branch_,
                                static_cast<int32_t>(strnlen(branch_, static_cast<size_t>(grco.len + br.len)))};
    }
    // The 32-bit binary length the fixed layout starts with; blank when the
    // telegram is shorter than that.
    void fixed_tmsg_len() {
        const Text bin = t_.span(0, sizeof(int32_t));
        if (bin.len < static_cast<int32_t>(sizeof(int32_t))) return;
        int32_t n;
        std::memcpy(&n, bin.p, sizeof n);
        cols_[kTmsgLenColumn] = {tmsg_len_, write_zero_padded(tmsg_len_, n, fixed::kTmsgLenDigits)};
    }

    const TmsgView t_;
    char flag_;
    char branch_[fixed::kGroupCompanyLen + fixed::kBranchLen];
    char tmsg_len_[kNumberMax];
    Text cols_[kColumns];
    Text snapshot_key_, result_;
    int64_t gid_off_ = 0, gid_len_ = 0, gid_compared_ = 0;
    bool internal_ = false;
};

ServiceArgs service_args(const StdCall& c, Text gid, Text svc, std::span<const Text> tail, Text key = {}) {
    return ServiceArgs{c.tid, c.cls_cd, c.dtl_cd, gid, svc, {}, {}, {}, tail, key};
}

void send_info(const StdCall& c, Text gid, Text svc, Text msg) {
    Notice n;
    n.gid = gid;
    n.svc_id = svc;
    n.msg_text = msg;
    (void)tran_info(c.tid, n);
}

// The caller's GID and the telegram's differ: the caller's transaction links
// to the one the telegram carries.
void send_linked_notices(const StdCall& c, const TmsgColumns& col) {
    const Text svc = c.adjusted_svc();
    const std::string_view kind = col.internal() ? "C/C "sv : ""sv;
    TextOut<1023> created, exist;
    created.text(col.internal() ? "C/C Transaction Created [ GID '"sv : "New Transaction Created [ GID '"sv);
    created.text(view(col.gid_printed())).text("', Service "sv).text(view(c_prefix(svc, svc.len))).text(" ]"sv);
    exist.text("Linked "sv).text(kind).text("Main Service Transaction Exist [ GID '"sv);
    exist.text(view(c_prefix(c.gid, kGidPrinted))).text("' ]"sv);
    send_info(c, c.gid, svc, {created.data(), created.size()});
    send_info(c, col.gid_text(), svc, {exist.data(), exist.size()});
}

bool gids_differ(const StdCall& c, const TmsgColumns& col) {
    if (!c.gid.p) return false;
    // The older layout's callers pass an empty GID when they have none.
    if (!c.standard && c_prefix(c.gid, 1).len == 0) return false;
    return !same_text(c.gid, col.gid(), col.gid_compared());
}

// The caller's GID, else the telegram's (as long as its field, or up to its
// NUL in the older layout).
Text gid_or_telegram(const StdCall& c, const TmsgColumns& col) {
    if (c.gid.p) return c.gid;
    return c.standard ? col.gid() : col.gid_text();
}

// Leading blanks skipped, then the digits up to the first non-digit.
int read_count(Text f) {
    int32_t i = 0;
    while (i < f.len && f.p[i] == ' ') ++i;
    int n = 0;
    for (; i < f.len && f.p[i] >= '0' && f.p[i] <= '9'; ++i) n = std::min(n * 10 + (f.p[i] - '0'), kCountMax);
    return n;
}

// "[code] text", each as far as the telegram holds it.
template <int N>
void message_text(TextOut<N>& out, const TmsgView& t, int64_t at, int64_t code_len, const TableEntry& text) {
    out.ch('[').text(view(t.span(at, code_len))).text("] "sv).text(view(t.span(at + code_len, table_field(text).len)));
}

// The error-message part of an "EM" telegram: its first message as error
// information, its additional messages as information.  A position at or
// past the end of the telegram ends the walk.
class MessageWalk {
public:
    MessageWalk(const StdCall& c, const TmsgColumns& col) : c_(c), col_(col) {}

    void run() {
        int items = 0, messages = 0, additional = 0;
        if (!count(_ERR_ORGN_ITEM_REPT_TCNT, items)) return;
        pos_ += items * table_field(_ERR_ORGN_ITEM_NM).len;
        if (!count(_MSG_INFO_REPT_TCNT, messages)) return;
        const int64_t code_len = table_field(_MSG_CD).len;
        if (messages > 0) {
            if (!c_.t.has(pos_)) return;
            send_first_message(code_len);
        }
        pos_ += messages * (code_len + table_field(_RSPS_MSG_CTT).len);
        if (!count(_ADTN_MSG_REPT_TCNT, additional)) return;
        for (int i = 0; i < additional && c_.t.has(pos_); ++i) {
            TextOut<1 + 9 + 2 + 200> text;
            message_text(text, c_.t, pos_, code_len, _ADTN_MSG);
            // Sent as a C string: it ends at a NUL the telegram may hold.
            send_info(c_, {}, {}, c_prefix({text.data(), text.size()}, text.size()));
            pos_ += code_len + table_field(_ADTN_MSG).len;
        }
    }

private:
    // The count at the walk's position, which then moves past it.
    bool count(const TableEntry& entry, int& n) {
        if (!c_.t.has(pos_)) return false;
        const int64_t len = table_field(entry).len;
        n = read_count(c_.t.span(pos_, len));
        pos_ += len;
        return true;
    }

    void send_first_message(int64_t code_len) {
        TextOut<1 + 9 + 2 + 300> text;
        message_text(text, c_.t, pos_, code_len, _RSPS_MSG_CTT);
        Notice n;
        n.gid = gid_or_telegram(c_, col_);
        n.svc_id = c_.adjusted_svc();
        n.code = {result_error_no(col_.result()), 4};
        n.recv_svc_cd = col_.column(kTailRecvSvcCd);
        n.chnl_class = {col_.internal() ? "C" : "O", 1};
        n.msg_text = {text.data(), text.size()};
        (void)tran_errinfo(c_.tid, n);
    }

    const StdCall& c_;
    const TmsgColumns& col_;
    int64_t pos_ = table_field(_ERR_ORGN_ITEM_REPT_TCNT).off;
};

bool captured_too_short(const StdCall& c, int8_t api_type) {
    if (!c.tmsg || !c.standard || c.svc_begins("CLH") || c.svc_begins("SPFMIPPR")) return false;
    return save_tong_log4c(c.tid, c.tmsg, c.t.size(), api_type) == VARNIX_RC_SHORT_TMSG;
}

int tran_startx(const StdCall& c) {
    if (captured_too_short(c, kCaptureStart)) return VARNIX_RC_SHORT_TMSG;
    if (!c.tmsg) return service_start(kStandardService, service_args(c, c.gid, c.svc_id, {}));
    const TmsgColumns col(c);
    if (gids_differ(c, col)) send_linked_notices(c, col);
    if (c.svc_begins("CLH"))
        return front_end_service(kClientHandlerService, '1',
                                 service_args(c, gid_or_telegram(c, col), c.svc_id, col.tail(), col.snapshot_key()));
    return service_start(kStandardService, service_args(c, col.internal() ? col.gid() : c.gid, c.adjusted_svc(),
                                                        col.tail(), col.snapshot_key()));
}

int tran_endx(const StdCall& c) {
    if (captured_too_short(c, kCaptureEnd)) return VARNIX_RC_SHORT_TMSG;
    const bool client_handler = c.svc_begins("CLH") || (!c.standard && c.svc_begins("GW"));
    if (!c.tmsg) {
        const ServiceArgs a = service_args(c, c.gid, c.svc_id, {});
        return c.svc_begins("CLH") || c.svc_begins("GW") ? front_end_service(kClientHandlerService, '2', a)
                                                         : service_end(kStandardService, a);
    }
    const TmsgColumns col(c);
    if (client_handler)
        return front_end_service(kClientHandlerService, '2',
                                 service_args(c, gid_or_telegram(c, col), c.svc_id, col.tail()));
    const ServiceArgs a = service_args(c, col.internal() ? col.gid_text() : c.gid, c.adjusted_svc(), col.tail());
    if (col.failed()) {
        (void)service_error(kStandardService, a);
        const Text kind = table_span(c.t, _STD_TMSG_DAT_KIND_CD);
        if (c.standard && c.tmsg_len > kWalkAfterLen && view(kind).starts_with("EM")) MessageWalk(c, col).run();
    }
    return service_end(kStandardService, a);
}

StdCall std_call(int32_t tid, const char* cls_cd, int32_t cls_cd_len, const char* dtl_cd, int32_t dtl_cd_len,
                 const char* gid, int32_t gid_len, const char* svc_id, int32_t svc_id_len, const char* tmsg,
                 int32_t tmsg_len, int32_t std_tmsg, int32_t tmsg_flag) {
    return StdCall{tid,
                   {cls_cd, cls_cd_len},
                   {dtl_cd, dtl_cd_len},
                   {gid, gid_len},
                   {svc_id, svc_id_len},
                   tmsg,
                   tmsg_len,
                   TmsgView(tmsg, tmsg_len),
                   std_tmsg != 0,
                   tmsg_flag != 0 ? '1' : '0',
                   svc_string({svc_id, svc_id_len})};
}

}  // namespace
}  // namespace varnix

using varnix::gvar;
using varnix::kInitMarkReady;

extern "C" {

int32_t TRAN_STARTX(int32_t tid, const char* cls_cd, int32_t cls_cd_len, const char* dtl_cd, int32_t dtl_cd_len,
                    const char* gid, int32_t gid_len, const char* svc_id, int32_t svc_id_len, const char* tmsg,
                    int32_t tmsg_len, int32_t std_tmsg, int32_t tmsg_flag) {
    // Outside the gate: a start waits for the callers inside it.
    if (gvar.init_mark.load() == 0) {
        const int32_t rc = TRAN_INIT();
        varnix::log_printf("<!> forced TRAN_INIT...API called, ret : %d", rc);
    }
    const varnix::EntryGate gate;
    if (gvar.init_mark.load() != kInitMarkReady) return VARNIX_RC_NOT_INIT;
    return varnix::tran_startx(varnix::std_call(tid, cls_cd, cls_cd_len, dtl_cd, dtl_cd_len, gid, gid_len, svc_id,
                                                svc_id_len, tmsg, tmsg_len, std_tmsg, tmsg_flag));
}

int32_t TRAN_ENDX(int32_t tid, const char* cls_cd, int32_t cls_cd_len, const char* dtl_cd, int32_t dtl_cd_len,
                  const char* gid, int32_t gid_len, const char* svc_id, int32_t svc_id_len, const char* tmsg,
                  int32_t tmsg_len, int32_t std_tmsg, int32_t tmsg_flag) {
    const varnix::EntryGate gate;
    if (gvar.init_mark.load() != kInitMarkReady) return VARNIX_RC_NOT_INIT;
    return varnix::tran_endx(varnix::std_call(tid, cls_cd, cls_cd_len, dtl_cd, dtl_cd_len, gid, gid_len, svc_id,
                                              svc_id_len, tmsg, tmsg_len, std_tmsg, tmsg_flag));
}

}  // extern "C"
