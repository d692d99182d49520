// Reading the records the library sends: the common header and the fields
// of each record type, by name.
#pragma once

#include <span>
#include <string_view>

#include "varnix_collector.h"

namespace varnix::collector {

struct NamedField {
    std::string_view name;
    int offset;  // in the body
    int width;
    bool number = false;  // digits written by the library (blank when absent)
};

// The common header of every record.
std::span<const NamedField> header_fields();
// The fields after the header for a record type and body length (empty when
// not known).
std::span<const NamedField> body_fields(char log_type, uint32_t body_len);

// The field's text with trailing spaces removed; empty when the field lies
// beyond the record's body length.
std::string_view field_text(const TRAN_LOG_MSG& m, const NamedField& f);
// Body length from the record's length word.
uint32_t body_length(const TRAN_LOG_MSG& m);

}  // namespace varnix::collector
