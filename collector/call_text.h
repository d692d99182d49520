// The text of a call record (BIZCALL 'C', DBIO 'B'): levels, times, names and
// the outcome, as numbers and names.
#pragma once

#include <string_view>

#include "collector/json_record.h"

namespace varnix::agent {

// Adds the figures of `text` to `out`; false when even the leading numbers
// (levels and the six times) are not there.  A text cut at its field's width
// gives the fields before the cut.
bool parse_call_text(std::string_view text, char kind, Json& out);

}  // namespace varnix::agent
