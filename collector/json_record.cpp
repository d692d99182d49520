#include "collector/json_record.h"

#include <cstdio>
#include <cstring>
#include <string_view>

#include "collector/call_text.h"
#include "collector/decode.h"
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

// Adds the named fields; false with `why` set on the first bad one.
bool add_fields(const TRAN_LOG_MSG& m, std::span<const kit::NamedField> fields, Json& out, std::string& why) {
    for (const kit::NamedField& f : fields) {
        std::string_view raw = kit::field_text(m, f);
        std::optional<std::string_view> v = utf8_field(raw);
        if (!v) {
            why = std::string("field ") + std::string(f.name) + " is not UTF-8";
            return false;
        }
        if (v->empty()) continue;
        if (!f.number) {
            out[std::string(f.name)] = *v;
            continue;
        }
        const int64_t n = digits_value(*v);
        if (n < 0) {
            why = std::string("field ") + std::string(f.name) + " is not a number";
            return false;
        }
        out[std::string(f.name)] = n;
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

Decoded decode_record(const TRAN_LOG_MSG& m, long size, int queue) {
    Decoded d;
    const RecordKind* kind = check_frame(m, size, d.error);
    if (!kind) return d;
    d.json["queue"] = queue;
    d.json["record"] = kind->name;
    if (!add_fields(m, kit::header_fields(), d.json, d.error)) return d;
    d.thread = d.json.value("pid", Json()).dump() + "/" + d.json.value("tid", Json()).dump();
    const uint32_t len = kit::body_length(m);
    const std::span<const kit::NamedField> body = kit::body_fields(kind->log_type, len);
    switch (kind->log_type) {
        case 'Q':
            // Pieces are joined first; the text is checked when whole, since a
            // piece may end inside a character.
            d.text.assign(m.text + sizeof(uint32_t) + body[0].offset, static_cast<size_t>(body[0].width));
            d.sql = true;
            return d;
        case 'B':
        case 'C': {
            std::optional<std::string_view> v = utf8_field(kit::field_text(m, body[0]));
            if (!v)
                d.error = "call text is not UTF-8";
            else if (!parse_call_text(*v, kind->log_type, d.json))
                d.error = "call text without its figures";
            return d;
        }
        default: add_fields(m, body, d.json, d.error); return d;
    }
}

Json malformed_json(const TRAN_LOG_MSG& m, long size, int queue, const std::string& why) {
    Json j;
    j["queue"] = queue;
    j["malformed"] = why;
    const size_t n = size == kOversized || size > VARNIX_REC_TEXT ? VARNIX_REC_TEXT
                     : size > 0                                   ? static_cast<size_t>(size)
                                                                  : 0;
    std::string_view raw(m.text, n);
    const size_t end = raw.find_last_not_of(' ');
    j["bytes"] = escape_bytes(raw.substr(0, end == std::string_view::npos ? 0 : end + 1));
    return j;
}

std::string json_line(const Json& j) { return j.dump(-1, ' ', false, Json::error_handler_t::replace) + "\n"; }

}  // namespace varnix::agent
