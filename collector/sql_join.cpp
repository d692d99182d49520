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
    std::string_view text;
};

bool read_head(const std::string& field, PieceHead& h, Json& json) {
    TextCursor c(field);
    if (!c.integer(h.slot) || !c.lit(",") || !c.integer(h.cnt) || !c.lit(",") || !c.integer(h.piece) || !c.lit(","))
        return false;
    if (h.piece == 1) {
        int64_t rep = 0, elapsed = 0, sql_no = 0;
        std::string_view func;
        if (!c.integer(rep) || !c.lit(",") || !c.secs(elapsed) || !c.lit(",") || !c.integer(sql_no) ||
            !c.lit(",") || !c.until(",", func))
            return false;
        json["slot"] = h.slot;
        json["sql_rec_cnt"] = h.cnt;
        json["rep_cnt"] = rep;
        json["elapsed_us"] = elapsed;
        json["sql_no"] = sql_no;
        json["func_nm"] = std::string(func);  // checked with the text
    }
    h.text = c.rest();
    return true;
}

void drop_trailing_spaces(std::string& s) {
    while (!s.empty() && s.back() == ' ') s.pop_back();
}

bool is_cut_byte(char c) { return static_cast<unsigned char>(c) >= 0xB0 && static_cast<unsigned char>(c) <= 0xC8; }

}  // namespace

bool SqlJoiner::add(Decoded& d, int64_t now_us, std::string& why) {
    PieceHead h;
    if (!read_head(d.text, h, d.json)) {
        why = "SQL piece header";
        return false;
    }
    if (h.piece == 1) {
        end_thread(d.thread);
        Pending& p = pending_[d.thread];
        p.json = std::move(d.json);
        p.append(h.text);
        p.slot = h.slot;
        p.pieces = 1;
        p.seen_us = now_us;
        return true;
    }
    auto it = pending_.find(d.thread);
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

void SqlJoiner::finish(Pending& p) {
    drop_trailing_spaces(p.text);
    p.json["pieces"] = p.pieces;
    const std::string func = p.json.value("func_nm", "");
    std::optional<std::string_view> text = utf8_field(p.text);
    if (text && utf8_field(func) == std::string_view(func)) {
        p.json["sql"] = *text;
    } else {
        p.json["func_nm"] = escape_bytes(func);
        p.json["sql"] = escape_bytes(p.text);
        p.json["malformed"] = "SQL text is not UTF-8";
    }
    emit_(p.json);
}

void SqlJoiner::end_thread(const std::string& thread) {
    auto it = pending_.find(thread);
    if (it == pending_.end()) return;
    finish(it->second);
    pending_.erase(it);
}

void SqlJoiner::flush_quiet(int64_t now_us) {
    for (auto it = pending_.begin(); it != pending_.end();) {
        if (now_us - it->second.seen_us < kQuietUs) {
            ++it;
            continue;
        }
        finish(it->second);
        it = pending_.erase(it);
    }
}

void SqlJoiner::flush_all() {
    for (auto& [thread, p] : pending_) finish(p);
    pending_.clear();
}

}  // namespace varnix::agent
