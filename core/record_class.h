// Record classes: which log_flag_set bit switches which record type.
#pragma once

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

// The bit that switches records of `log_type`; 0 when no switch applies.
constexpr uint8_t record_class_bit(char log_type) {
    switch (log_type) {
        case '1':
        case '2': return VARNIX_FLAG_S;
        case '9': return VARNIX_FLAG_E;
        case 'S': return 0;  // a letter, not a record type
        default: return letter_bit(log_type);
    }
}

static_assert(record_class_bit('1') == VARNIX_FLAG_S && record_class_bit('E') == VARNIX_FLAG_E);
static_assert(record_class_bit('3') == 0 && record_class_bit('a') == 0);

}  // namespace varnix
