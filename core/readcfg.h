// Agent configuration file reader: bracketed section headers followed by
// "KEYWORD = token token ..." lines.  Every request re-reads the file; there is
// no cache.  Diagnostics go to standard error because they are needed before
// the diagnostic log is open.
#pragma once

#include <cstdio>
#include <span>

namespace varnix {

inline constexpr int kCfgTokenMax = 63;  // characters of one token
inline constexpr int kCfgTokenCnt = 16;  // tokens of one value

// Copies token n (1-based) of `keyword` in `section` into `out` (NUL-terminated,
// at most kCfgTokenMax characters).  1 on success, -1 otherwise.
int get_nth_token_in_file_section(const char* path, const char* section, const char* keyword, int n,
                                  std::span<char> out);

// Rewinds and positions `fp` after the first header containing `section`;
// the header's 1-based line number, or -1.
int seek_section(std::FILE* fp, const char* section);

// From a position after a header: copies the value of `keyword` into `out`;
// the keyword's line number counted from the header, or -1.
int get_string_in_section(std::FILE* fp, const char* keyword, std::span<char> out);

}  // namespace varnix
