// Cut positions that split no Korean character.  They only compute a length;
// the text is never written.
#pragma once

namespace varnix {

inline constexpr int kEncEucKr = 0;
inline constexpr int kEncUtf8 = 1;

// The cut moved back past the run of Hangul lead-range bytes that ends there.
int hangul_euckr(const char* text, int len, int cut);
// The cut moved back to the start of a three-byte character it would split.
int hangul_utf8(const char* text, int len, int cut);

}  // namespace varnix
