// Formats, as the library writes them:
//   lvl,depth_max,E,own,called,dbio,start,end,[label][func at module (source::line){seq}]#RC rc
//   ...]#SQLCODE c, #RC rc (line l) fetch n rows (ms.us ms) DB user/sid   ("rows(" after the first
//   finish at a level).  Times are "s.uuuuuu"; the fetch time is milliseconds
//   and the remaining microseconds, the latter not zero-padded.
#include "collector/call_text.h"

#include <array>

#include "collector/text_cursor.h"

namespace varnix::agent {
namespace {

constexpr std::array<const char*, 6> kTimes = {"elapsed_us", "own_us", "called_us", "dbio_us", "start_us", "end_us"};

// Blank names are left out, as blank fields are.
void put_text(Fields& out, std::string_view key, std::string_view v) {
    if (!v.empty()) out.text(key, v);
}

bool leading_numbers(TextCursor& c, Fields& out) {
    int trc_lvl = 0, depth_max = 0;
    if (!c.integer(trc_lvl) || !c.lit(",") || !c.integer(depth_max) || !c.lit(",")) return false;
    std::array<int64_t, kTimes.size()> us{};
    for (int64_t& t : us)
        if (!c.secs(t) || !c.lit(",")) return false;
    out.number("trc_lvl", trc_lvl);
    out.number("call_trc_depth_max", depth_max);
    for (size_t i = 0; i < kTimes.size(); ++i) out.number(kTimes[i], us[i]);
    return true;
}

// "func at module (source::line){seq}" from its end, since only the
// function name is free text.
void call_names(std::string_view inner, Fields& out) {
    const size_t brace = inner.rfind('{');
    const size_t colons = inner.rfind("::", brace);
    const size_t paren = inner.rfind(" (", colons);
    const size_t at = inner.find(" at ");
    if (at == std::string_view::npos || paren == std::string_view::npos || colons == std::string_view::npos ||
        brace == std::string_view::npos || at > paren) {
        put_text(out, "func_nm", inner);  // cut short: the function name at least
        return;
    }
    put_text(out, "func_nm", inner.substr(0, at));
    put_text(out, "module_nm", inner.substr(at + 4, paren - at - 4));
    put_text(out, "source_nm", inner.substr(paren + 2, colons - paren - 2));
    int line = 0, seq = 0;
    TextCursor l(inner.substr(colons + 2));
    if (l.integer(line)) out.number("line_no", line);
    TextCursor s(inner.substr(brace + 1));
    if (s.integer(seq)) out.number("call_seq", seq);
}

void dbio_outcome(TextCursor& c, Fields& out) {
    int64_t sql_code = 0, rc = 0, line = 0, rows = 0, ms = 0, us = 0;
    if (!c.lit("SQLCODE ") || !c.integer(sql_code)) return;
    out.number("sql_code", sql_code);
    if (!c.lit(", #RC ") || !c.integer(rc)) return;
    out.number("rc", rc);
    if (!c.lit(" (line ") || !c.integer(line) || !c.lit(") fetch ")) return;
    out.number("fetch_line", line);
    if (!c.integer(rows) || !c.lit(" rows")) return;
    out.number("fetch_rows", rows);
    c.lit(" ");
    if (!c.lit("(") || !c.integer(ms) || !c.lit(".") || !c.integer(us) || !c.lit(" ms) DB ")) return;
    out.number("fetch_us", ms * 1000 + us);
    std::string_view user;
    if (!c.until("/", user)) return;
    put_text(out, "db_user", user);
    put_text(out, "db_sid", c.rest());
}

}  // namespace

bool parse_call_text(std::string_view text, char kind, Fields& out) {
    TextCursor c(text);
    if (!leading_numbers(c, out)) return false;
    std::string_view label;
    if (!c.lit("[") || !c.until("]", label)) return true;
    put_text(out, "kind_label", label);
    if (!c.lit("[")) return true;
    const std::string_view rest = c.rest();
    const size_t end = rest.rfind("]#");  // the last: a function name may hold one
    call_names(rest.substr(0, end), out);
    if (end == std::string_view::npos) return true;
    TextCursor tail(rest.substr(end + 2));
    if (kind == 'B') {
        dbio_outcome(tail, out);
        return true;
    }
    int64_t rc = 0;
    if (tail.lit("RC ") && tail.integer(rc)) out.number("rc", rc);
    return true;
}

}  // namespace varnix::agent
