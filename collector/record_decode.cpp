#include "collector/record_decode.h"

#include <cstdio>
#include <cstring>

#include "collector/call_text.h"
#include "collector/record_layout.h"
#include "collector/utf8_text.h"

namespace varnix::agent {
namespace {

struct RecordKind {
    char log_type;
    const char* name;
    uint32_t body_len;
    uint32_t alt_body_len;  // process-tracing and web service records
};

constexpr RecordKind kKinds[] = {
    {'1', "service_start", 426, 386}, {'2', "service_end", 426, 386}, {'9', "service_error", 426, 426},
    {'E', "error_info", 571, 571},    {'V', "event", 733, 733},       {'I', "info", 548, 548},
    {'X', "info_ex", 553, 553},       {'C', "bizcall", 548, 548},     {'B', "dbio", 548, 548},
    {'Q', "sql", 548, 548},
};

const RecordKind* kind_of(char log_type) {
    for (const RecordKind& k : kKinds)
        if (k.log_type == log_type) return &k;
    return nullptr;
}

// The value of a field of digits; -1 for anything else.
int64_t digits_value(std::string_view v) {
    constexpr size_t kMaxDigits = 18;
    if (v.size() > kMaxDigits) return -1;
    int64_t n = 0;
    for (char c : v) {
        if (c < '0' || c > '9') return -1;
        n = n * 10 + (c - '0');
    }
    return n;
}

// Where the library's date and time stand; not fields of the timeline, which
// carries ts_us instead.
bool is_time_field(const collector::NamedField& f) { return f.name == "date_str" || f.name == "time_str"; }
// Zero by construction on starts and errors, and on nested ends.
bool is_service_figure(const collector::NamedField& f) { return f.name == "elapsed_us" || f.name == "call_us"; }

// True when the body holds no byte above 0x7F: then no field needs the
// UTF-8 check, the usual case, eight bytes at a time.
bool ascii_body(const TRAN_LOG_MSG& m) {
    const size_t n = collector::body_length(m);
    const char* b = m.text + sizeof(uint32_t);
    uint64_t any = 0;
    size_t i = 0;
    for (uint64_t w; i + sizeof w <= n; i += sizeof w) {
        std::memcpy(&w, b + i, sizeof w);
        any |= w;
    }
    for (; i < n; ++i) any |= static_cast<unsigned char>(b[i]);
    return (any & 0x8080808080808080ull) == 0;
}

// One field's value, checked; false with `why` set when it is not UTF-8 or
// not the number it should be.
bool read_field(const TRAN_LOG_MSG& m, const collector::NamedField& f, bool ascii, Value& out, std::string& why) {
    std::optional<std::string_view> v = collector::field_text(m, f);
    if (!ascii) v = utf8_field(*v);
    if (!v) {
        why = std::string("field ") + std::string(f.name) + " is not UTF-8";
        return false;
    }
    out = {f.name, *v, 0, false};
    if (!f.number || v->empty()) return true;
    out.num = digits_value(*v);
    out.number = true;
    if (out.num >= 0) return true;
    why = std::string("field ") + std::string(f.name) + " is not a number";
    return false;
}

// Adds the named fields; blank ones are left out.  False on the first bad one.
bool add_fields(const TRAN_LOG_MSG& m, std::span<const collector::NamedField> fields, bool ascii, bool keep_figures,
                Decoded& d) {
    for (const collector::NamedField& f : fields) {
        Value v;
        if (!read_field(m, f, ascii, v, d.error)) return false;
        if (v.text.empty() && !v.number) continue;
        if (!f.number && is_time_field(f)) {
            (f.name == "date_str" ? d.date : d.time) = v.text;
            continue;
        }
        if (f.number && !keep_figures && is_service_figure(f)) continue;
        if (v.number)
            d.rec.f.number(v.key, v.num);
        else
            d.rec.f.text(v.key, v.text);
    }
    return true;
}

// The fixed framing: size, message type, record type and body length.
const RecordKind* check_frame(const TRAN_LOG_MSG& m, long size, std::string& why) {
    char buf[96];
    if (size != VARNIX_REC_TEXT) {
        if (size == kOversized)
            std::snprintf(buf, sizeof buf, "longer than %d bytes", VARNIX_REC_TEXT);
        else
            std::snprintf(buf, sizeof buf, "length %ld, not %d", size, VARNIX_REC_TEXT);
        why = buf;
        return nullptr;
    }
    if (m.mtype != 1) {
        std::snprintf(buf, sizeof buf, "message type %ld, not 1", m.mtype);
        why = buf;
        return nullptr;
    }
    const char log_type = m.text[sizeof(uint32_t)];
    const RecordKind* kind = kind_of(log_type);
    if (!kind) {
        std::snprintf(buf, sizeof buf, "unknown record type 0x%02X", static_cast<unsigned char>(log_type));
        why = buf;
        return nullptr;
    }
    uint32_t len;
    std::memcpy(&len, m.text, sizeof len);
    if (len != kind->body_len && len != kind->alt_body_len) {
        std::snprintf(buf, sizeof buf, "body length %u for a record of type %c", len, log_type);
        why = buf;
        return nullptr;
    }
    return kind;
}

}  // namespace

void decode_record(const TRAN_LOG_MSG& m, long size, int queue, LocalTime& clock, int64_t now_us, Decoded& d) {
    d.rec.f.clear();
    d.error.clear();
    d.sql = false;
    d.piece = d.date = d.time = {};
    d.rec.queue = queue;
    d.rec.ts_us = now_us;
    d.rec.thread = {};
    const RecordKind* kind = check_frame(m, size, d.error);
    d.rec.log_type = kind ? kind->log_type : 0;
    d.rec.name = kind ? kind->name : "";
    const bool ascii = kind && ascii_body(m);
    if (!kind || !add_fields(m, collector::header_fields(), ascii, false, d)) return;
    d.rec.thread = {d.rec.f.number_of("pid", -1), d.rec.f.number_of("tid", -1)};
    const int64_t local = clock.epoch_us(d.date, d.time);
    d.rec.ts_us = local >= 0 ? local : now_us;
    const std::span<const collector::NamedField> body =
        collector::body_fields(kind->log_type, collector::body_length(m));
    switch (kind->log_type) {
        case 'Q':
            // Pieces are joined first; the text is checked when whole, since a
            // piece may end inside a character.
            d.piece = std::string_view(m.text + sizeof(uint32_t) + body[0].offset, static_cast<size_t>(body[0].width));
            d.sql = true;
            return;
        case 'B':
        case 'C': {
            std::optional<std::string_view> v = utf8_field(collector::field_text(m, body[0]));
            if (!v)
                d.error = "call text is not UTF-8";
            else if (!parse_call_text(*v, kind->log_type, d.rec.f))
                d.error = "call text without its figures";
            else
                d.rec.ts_us = d.rec.f.number_of("end_us", d.rec.ts_us);
            return;
        }
        default: {
            // An outermost end carries its elapsed time and DBIO time; other
            // service records carry zeros there.
            const bool figures = kind->log_type == '2' && digits_value(collector::field_text(m, body[0])) > 0;
            add_fields(m, body, ascii, figures, d);
        }
    }
}

std::string malformed_bytes(const TRAN_LOG_MSG& m, long size) {
    const size_t n = size == kOversized || size > VARNIX_REC_TEXT ? VARNIX_REC_TEXT
                     : size > 0                                   ? static_cast<size_t>(size)
                                                                  : 0;
    std::string_view raw(m.text, n);
    const size_t end = raw.find_last_not_of(' ');
    return escape_bytes(raw.substr(0, end == std::string_view::npos ? 0 : end + 1));
}

}  // namespace varnix::agent
