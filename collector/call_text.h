// The text of a call record (BIZCALL 'C', DBIO 'B'): levels, times, names and
// the outcome, as numbers and names.
#pragma once

#include <string_view>

#include "collector/record_fields.h"

namespace varnix::agent {

// Adds the figures of `text` to `out`; false when even the leading numbers
// (levels and the six times) are not there.  A text cut at its field's width
// gives the fields before the cut; empty names are left out.  Texts are
// views into `text`.
bool parse_call_text(std::string_view text, char kind, Fields& out);

}  // namespace varnix::agent
