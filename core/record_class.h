// Record classes: which log_flag_set bit switches which record type.
#pragma once

#include <array>
#include <cstdint>

#include "varnix_collector.h"

namespace varnix {

// The bit of a get_log_flag_set letter (S E V B C I X Q, upper case only).
constexpr uint8_t letter_bit(char letter) {
    switch (letter) {
        case 'S': return VARNIX_FLAG_S;
        case 'E': return VARNIX_FLAG_E;
        case 'V': return VARNIX_FLAG_V;
        case 'B': return VARNIX_FLAG_B;
        case 'C': return VARNIX_FLAG_C;
        case 'I': return VARNIX_FLAG_I;
        case 'X': return VARNIX_FLAG_X;
        case 'Q': return VARNIX_FLAG_Q;
        default: return 0;
    }
}

namespace record_class_detail {

constexpr uint8_t class_bit_of(char log_type) {
    switch (log_type) {
        case '1':
        case '2': return VARNIX_FLAG_S;
        case '9': return VARNIX_FLAG_E;
        case 'S': return 0;  // a letter, not a record type
        default: return letter_bit(log_type);
    }
}

inline constexpr auto kClassBits = [] {
    std::array<uint8_t, 128> t{};
    for (int c = 0; c < 128; ++c) t[static_cast<size_t>(c)] = class_bit_of(static_cast<char>(c));
    return t;
}();

}  // namespace record_class_detail

// The bit that switches records of `log_type`; 0 when no switch applies.
// A table, read on every record.
constexpr uint8_t record_class_bit(char log_type) {
    const auto c = static_cast<unsigned char>(log_type);
    return c < record_class_detail::kClassBits.size() ? record_class_detail::kClassBits[c] : 0;
}

static_assert(record_class_bit('1') == VARNIX_FLAG_S && record_class_bit('E') == VARNIX_FLAG_E);
static_assert(record_class_bit('3') == 0 && record_class_bit('a') == 0);

}  // namespace varnix
