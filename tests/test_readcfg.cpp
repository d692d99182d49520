#include "core/readcfg.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <tuple>

#include "kit/config_file.h"
#include "support/temp_dir.h"

namespace varnix {
namespace {

// Return code, output buffer, standard error of one lookup.
using Lookup = std::tuple<int, std::string, std::string>;
constexpr const char* kUntouched = "untouched";

Lookup found(const std::string& token) { return {1, token, ""}; }
Lookup failed(const std::string& err) { return {-1, kUntouched, err}; }
std::string no_token(const std::string& path, const std::string& section, const std::string& keyword, int n,
                     int lnum) {
    return "[get_nth_token_in_file_section] can't found nth(" + std::to_string(n) + ") token; file=" + path +
           ", section=" + section + ", keyword=" + keyword + ", lnum=" + std::to_string(lnum) + "\n";
}
// A refusal whose diagnostic line is checked by another case.
bool refused(const Lookup& l) { return std::get<0>(l) == -1 && std::get<1>(l) == kUntouched; }

class ReadCfg : public testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(dir_.ok()); }
    std::string write(const std::string& text) { return kit::write_file(path_, text) ? path_ : "unwritten"; }
    static Lookup lookup(const std::string& path, const std::string& section, const std::string& keyword, int n) {
        char out[kCfgTokenMax + 1];
        std::snprintf(out, sizeof out, "%s", kUntouched);
        testing::internal::CaptureStderr();
        int rc = get_nth_token_in_file_section(path.c_str(), section.c_str(), keyword.c_str(), n, out);
        std::string err = testing::internal::GetCapturedStderr();
        return {rc, out, err};
    }
    test::TempDir dir_;
    const std::string path_ = dir_.file("agent.cfg");
};

TEST_F(ReadCfg, SectionIsTheFirstHeaderContainingTheNameAndTheFileIsReadOnEveryCall) {
    EXPECT_EQ(lookup(path_, "A", "K", 1), failed("[get_nth_token_in_file_section] fopen fail[" + path_ + "]; errno=" +
                                                 std::to_string(ENOENT) + "(" + std::strerror(ENOENT) + ")\n"));
    // A header starts in column one; the first one that contains the name is the section.
    std::string p = write("TRAN_LOGF = 0\n [TRAN_LOGF]\n[TRAN_LOGF_X]\nQUE_CNT = 8\n[TRAN_LOGF]\nQUE_CNT = 4\n");
    EXPECT_EQ(lookup(p, "TRAN_LOGF", "QUE_CNT", 1), found("8"));
    EXPECT_EQ(lookup(p, "tran_logf", "QUE_CNT", 1), failed("[seek_section] not found section[tran_logf]\n[seek_section]"
                                                           " not found section[tran_logf] in file[" + p + "]\n"));
    write("[A]\nK = 2\n");
    EXPECT_EQ(lookup(p, "A", "K", 1), found("2"));
}

TEST_F(ReadCfg, KeywordIsTheWholeFirstWordOfALineThatIsNoComment) {
    std::string line = "T17 =";
    for (int i = 1; i <= 17; ++i) line += " v" + std::to_string(i);
    std::string p = write("[TRAN_LOGF]\nQUE_CNT=4\n"                  // 1, 2: the first word is QUE_CNT=4
                          "que_cnt = 5\n#QUE_CNT = 2\n"               // 3, 4: a comment
                          " #QUE_CNT = 3\n\nQUE_CNT_MAX = 6\n"        // 5: its first word is #QUE_CNT; 6, 7
                          "QUE_CNT =4\nQUE_CNT = 7\n"                 // 8, 9: the first match wins
                          "  MAX_QUE_CNT\t=\t9   10\nFLAGS = a=b c\n"  // 10, 11: split at the first '='
                          "NOVALUE 5\n" + line + "\n"                 // 12: no '=', empty value; 13: 17 tokens
                          "[NEXT]\nLATE_KEY = x\n");                  // 14, 15
    EXPECT_EQ(lookup(p, "TRAN_LOGF", "QUE_CNT", 1), found("4"));
    EXPECT_EQ(lookup(p, "TRAN_LOGF", "#QUE_CNT", 1), found("3"));
    EXPECT_EQ(lookup(p, "TRAN_LOGF", "MAX_QUE_CNT", 2), found("10"));
    EXPECT_EQ(lookup(p, "TRAN_LOGF", "FLAGS", 1), found("a=b"));
    // Comment and blank lines count in the line number.
    EXPECT_EQ(lookup(p, "TRAN_LOGF", "NOVALUE", 1), failed(no_token(p, "TRAN_LOGF", "NOVALUE", 1, 12)));
    EXPECT_EQ(lookup(p, "TRAN_LOGF", "T17", 16), found("v16"));
    EXPECT_TRUE(refused(lookup(p, "TRAN_LOGF", "T17", 17)));
    EXPECT_EQ(lookup(p, "TRAN_LOGF", "QUE", 1),
              failed("[get_string_in_section] not found keyword[QUE]\n[get_string_in_section] not found keyword[QUE]; "
                     "file=" + p + ", section=TRAN_LOGF\n"));
    EXPECT_TRUE(refused(lookup(p, "TRAN_LOGF", "LATE_KEY", 1)));
    EXPECT_EQ(lookup(p, "NEXT", "LATE_KEY", 1), found("x"));
}

// fgets reads a line of more than 255 characters in pieces, each a line of its own.
TEST_F(ReadCfg, LongLinesAreReadInPiecesAndOverlongWordsAreBounded) {
    auto tok = [](int i) {
        char head[16];
        std::snprintf(head, sizeof head, "tok%02d", i);
        return std::string(head).append(15, 'a');
    };
    std::string longv = "LONGV =";  // 8 characters with the first blank: 247 of the value fit the first piece
    for (int i = 1; i <= 16; ++i) longv.append(" ").append(tok(i));
    std::string filler = "#" + std::string(254, 'x');
    std::string k64(64, 'K'), k63(63, 'K'), w63(63, 'W');
    std::string p = write("[TRAN_LOGF]\n" + filler + "HIDDEN = 7\n"              // 1, 2, 3
                          + longv + "\n" + "BIG = " + std::string(70, 'a') + "\n"  // 4, 5, 6
                          + k64 + " = 1\n" + k63 + " = 2\n"                        // 7, 8
                          + w63 + "XXXXXXX = 3\n"  // 9: a cut prefix of this word would be w63
                          + w63 + " = 4\n" + filler + "[NEW]\nBEYOND = z\n");  // 10; 11, 12: a header piece; 13
    EXPECT_EQ(lookup(p, "TRAN_LOGF", "HIDDEN", 1), found("7"));
    EXPECT_EQ(lookup(p, "TRAN_LOGF", "LONGV", 11), found(tok(11)));
    EXPECT_EQ(lookup(p, "TRAN_LOGF", "LONGV", 12), found(tok(12).substr(0, 16)));
    EXPECT_TRUE(refused(lookup(p, "TRAN_LOGF", "LONGV", 13)));
    EXPECT_EQ(lookup(p, "TRAN_LOGF", "BIG", 1), found(std::string(63, 'a')));
    EXPECT_TRUE(refused(lookup(p, "TRAN_LOGF", k64, 1)));
    EXPECT_EQ(lookup(p, "TRAN_LOGF", k63, 1), found("2"));
    EXPECT_EQ(lookup(p, "TRAN_LOGF", w63, 1), found("4"));
    EXPECT_TRUE(refused(lookup(p, "TRAN_LOGF", "BEYOND", 1)));
    EXPECT_EQ(lookup(p, "NEW", "BEYOND", 2), failed(no_token(p, "NEW", "BEYOND", 2, 13)));
}

}  // namespace
}  // namespace varnix
