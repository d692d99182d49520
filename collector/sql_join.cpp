// Piece headers: "slot,count,piece," and, on the first piece,
// "repeats,s.uuuuuu,sql_no,function,"; the text follows, space-padded to the
// end of the field.  The library cuts a piece short only to keep a character
// whole, and then the first non-space byte after the cut is one the cut rule
// drops (0xB0..0xC8) and the piece ends on a non-space byte: so the spaces
// that end a piece are padding exactly when the next non-space byte of the
// statement is such a byte.  A piece of spaces alone is never padded, but
// the last: a statement's own trailing spaces cannot be told from padding.
#include "collector/sql_join.h"

#include "collector/text_cursor.h"
#include "collector/utf8_text.h"

namespace varnix::agent {
namespace {

struct PieceHead {
    int slot = 0, cnt = 0, piece = 0;
    int64_t rep = 0, elapsed = 0, sql_no = 0;
    std::string_view func;
    std::string_view text;
};

bool read_head(std::string_view field, PieceHead& h) {
    TextCursor c(field);
    if (!c.integer(h.slot) || !c.lit(",") || !c.integer(h.cnt) || !c.lit(",") || !c.integer(h.piece) || !c.lit(","))
        return false;
    if (h.piece == 1 && (!c.integer(h.rep) || !c.lit(",") || !c.secs(h.elapsed) || !c.lit(",") ||
                         !c.integer(h.sql_no) || !c.lit(",") || !c.until(",", h.func)))
        return false;
    h.text = c.rest();
    return true;
}

void drop_trailing_spaces(std::string& s) {
    while (!s.empty() && s.back() == ' ') s.pop_back();
}

bool is_cut_byte(char c) { return static_cast<unsigned char>(c) >= 0xB0 && static_cast<unsigned char>(c) <= 0xC8; }

}  // namespace

bool SqlJoiner::add(const TRAN_LOG_MSG& m, Decoded& d, int64_t now_us, std::string& why) {
    PieceHead h;
    if (!read_head(d.piece, h)) {
        why = "SQL piece header";
        return false;
    }
    if (h.piece == 1) {
        // Which statement of which call it is tells whether the thread's
        // previous statement belongs to the same call.
        d.rec.f.number("slot", h.slot);
        d.rec.f.number("sql_rec_cnt", h.cnt);
        end_thread(d.rec);
        Pending& p = pending_[d.rec.thread];
        p.first = m;
        p.ts_us = d.rec.ts_us;
        p.queue = d.rec.queue;
        p.rep = h.rep;
        p.elapsed = h.elapsed;
        p.sql_no = h.sql_no;
        p.func.assign(h.func);
        p.text.clear();
        p.pad_at = p.pad_len = 0;
        p.append(h.text);
        p.slot = h.slot;
        p.cnt = h.cnt;
        p.pieces = 1;
        p.seen_us = now_us;
        return true;
    }
    auto it = pending_.find(d.rec.thread);
    if (it == pending_.end() || it->second.slot != h.slot || it->second.pieces + 1 != h.piece) {
        why = "SQL piece " + std::to_string(h.piece) + " continues no statement";
        return false;
    }
    Pending& p = it->second;
    p.append(h.text);
    ++p.pieces;
    p.seen_us = now_us;
    return true;
}

void SqlJoiner::Pending::append(std::string_view piece) {
    const size_t first = piece.find_first_not_of(' ');
    if (first == std::string_view::npos) {  // spaces alone: all of them the statement's
        text.append(piece);
        return;
    }
    if (is_cut_byte(piece[first])) text.erase(pad_at, pad_len);
    text.append(piece);
    pad_at = text.find_last_not_of(' ') + 1;
    pad_len = text.size() - pad_at;
}

void SqlJoiner::finish(Pending& p, const Record* next) {
    drop_trailing_spaces(p.text);
    decode_record(p.first, VARNIX_REC_TEXT, 0, clock_, p.ts_us, head_);
    head_.rec.ts_us = p.ts_us;
    head_.rec.queue = p.queue;
    Fields& f = head_.rec.f;
    f.number("slot", p.slot);
    f.number("sql_rec_cnt", p.cnt);
    f.number("rep_cnt", p.rep);
    f.number("elapsed_us", p.elapsed);
    f.number("sql_no", p.sql_no);
    std::optional<std::string_view> text = utf8_field(p.text);
    const bool utf8 = text && utf8_field(p.func) == std::string_view(p.func);
    if (!utf8) {
        p.func = escape_bytes(p.func);
        p.text = escape_bytes(p.text);
    }
    if (!p.func.empty()) f.text("func_nm", p.func);
    f.number("pieces", p.pieces);
    f.text("sql", utf8 ? *text : std::string_view(p.text));
    if (!utf8) f.text("malformed", "SQL text is not UTF-8");
    emit_(head_.rec, next);
}

void SqlJoiner::end_thread(const Record& next) {
    auto it = pending_.find(next.thread);
    if (it == pending_.end()) return;
    finish(it->second, &next);
    pending_.erase(it);
}

void SqlJoiner::flush_quiet(int64_t now_us) {
    for (auto it = pending_.begin(); it != pending_.end();) {
        if (now_us - it->second.seen_us < kQuietUs) {
            ++it;
            continue;
        }
        finish(it->second, nullptr);
        it = pending_.erase(it);
    }
}

void SqlJoiner::flush_all() {
    for (auto& [thread, p] : pending_) finish(p, nullptr);
    pending_.clear();
}

}  // namespace varnix::agent
