// The standard telegram's field table (include/varnix.h): exported and
// writable, so a host may move a field between two calls or while one runs.
// Each entry is read where it is used, never cached.
#pragma once

#include <cstdint>

#include "record/tmsg_view.h"

namespace varnix {

// One entry as read now; a negative length counts as none.
struct TmsgField {
    int64_t off;
    int64_t len;
};

inline TmsgField table_field(const int32_t (&entry)[2]) {
    // The host writes the table without telling anyone: relaxed loads, each
    // word whole.
    const int32_t off = __atomic_load_n(&entry[0], __ATOMIC_RELAXED);
    const int32_t len = __atomic_load_n(&entry[1], __ATOMIC_RELAXED);
    return {off, len < 0 ? 0 : len};
}

// The entry's bytes in the telegram, as far as they lie inside it.
inline Text table_span(const TmsgView& t, const int32_t (&entry)[2]) {
    const TmsgField f = table_field(entry);
    return t.span(f.off, f.len);
}

}  // namespace varnix
