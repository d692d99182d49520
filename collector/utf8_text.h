// Checks and escapes for record texts on their way into JSON, which carries
// only UTF-8.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace varnix::agent {

// The text without an incomplete UTF-8 sequence at its very end (a field cut
// at its width may split the last character); nullopt when any other byte
// sequence is not UTF-8.
std::optional<std::string_view> utf8_field(std::string_view text);

// Printable ASCII as it is, a backslash doubled, every other byte as \xNN.
std::string escape_bytes(std::string_view raw);

}  // namespace varnix::agent
