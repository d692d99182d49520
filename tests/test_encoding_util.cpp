#include "core/encoding_util.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "varnix_collector.h"

namespace varnix {
namespace {

// hcut at every cut from 0 to one past the end.  The text is copied into a heap
// block of exactly its size, without a terminator, so that a read past the end
// is caught by the address sanitizer.
std::vector<int> cuts(const std::string& text, int encoding) {
    const std::vector<char> buf(text.begin(), text.end());
    std::vector<int> out;
    for (int cut = 0; cut <= static_cast<int>(buf.size()) + 1; ++cut)
        out.push_back(hcut(buf.data(), static_cast<int>(buf.size()), cut, encoding));
    return out;
}

TEST(Hcut, EucKrDropsTheLeadRangeRunEndingAtTheCut) {
    // a 가(B0 A1) 나(B3 AA) b 한(C7 D1) 글(B1 DB)
    const std::string mixed = "a\xB0\xA1\xB3\xAA" "b\xC7\xD1\xB1\xDB";
    EXPECT_EQ(cuts(mixed, kEncEucKr), (std::vector<int>{0, 1, 1, 3, 3, 5, 6, 6, 8, 8, 10, 10}));
    // "한글 가나다 서비스 조회".  Trail bytes inside B0..C8 (스 = BD BA, 조 = C1 B6,
    // 회 = C8 B8) go with the lead before them, so complete characters are
    // dropped too; the cut still never ends inside a character.
    const std::string sentence = "\xC7\xD1\xB1\xDB \xB0\xA1\xB3\xAA\xB4\xD9 \xBC\xAD\xBA\xF1\xBD\xBA \xC1\xB6\xC8\xB8";
    EXPECT_EQ(cuts(sentence, kEncEucKr), (std::vector<int>{0, 0, 2, 2, 4, 5, 5, 7, 7, 9, 9, 11, 12, 12, 14, 14, 16,
                                                           16, 16, 19, 19, 19, 19, 23, 23}));
}

TEST(Hcut, Utf8NeverSplitsAHangulSyllableAndDropsOtherMultibyteCharactersWhole) {
    EXPECT_EQ(cuts("a가b나다", kEncUtf8), (std::vector<int>{0, 1, 1, 1, 4, 5, 5, 5, 8, 8, 8, 11, 11}));
    EXPECT_EQ(hcut("aéb", -1, 3, kEncUtf8), 1);  // é is complete, yet dropped
    // A Hangul syllable before the unrecognized character survives.
    EXPECT_EQ(hcut("가éx", -1, 5, kEncUtf8), 3);
    // A lead byte whose sequence is broken is no character: dropped with the rest.
    EXPECT_EQ(hcut("ab\xEA\xB0x", 5, 4, kEncUtf8), 2);
    // A sequence that would run past the given length is not recognized, so
    // the walk goes on through the é before it.
    EXPECT_EQ(hcut("é가", 4, 3, kEncUtf8), 0);
}

TEST(Hcut, LengthsCutsAndEncodings) {
    const char* ten = "0123456789";
    EXPECT_EQ(hcut(ten, 10, 20, kEncEucKr), 10);
    EXPECT_EQ(hcut(ten, 10, 10, kEncUtf8), 10);
    EXPECT_EQ(hcut(ten, 10, 0, kEncEucKr), 0);
    EXPECT_EQ(hcut(ten, 10, -3, kEncUtf8), 0);
    EXPECT_EQ(hcut(ten, 10, 5, 2), 0);
    EXPECT_EQ(hcut(ten, 10, 20, 2), 10);  // nothing to cut: the encoding is not consulted
    EXPECT_EQ(hcut(nullptr, 10, 5, kEncEucKr), 0);

    // A zero length is an empty text; any negative length means "up to the terminator".
    EXPECT_EQ(hcut(ten, 0, 5, kEncEucKr), 0);
    EXPECT_EQ(hcut(ten, -1, 20, kEncEucKr), 10);
    EXPECT_EQ(hcut(ten, -7, 20, kEncUtf8), 10);

    // An explicit length reaches past an embedded terminator; -1 stops at it.
    const char with_nul[] = "가\0나";
    EXPECT_EQ(hcut(with_nul, 7, 5, kEncUtf8), 4);
    EXPECT_EQ(hcut(with_nul, -1, 5, kEncUtf8), 3);
}

}  // namespace
}  // namespace varnix
