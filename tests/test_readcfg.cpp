#include "core/readcfg.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <tuple>

#include "collector/kit.h"
#include "support/temp_dir.h"

namespace varnix {
namespace {

// Return code, output buffer, standard error of one lookup.
using Lookup = std::tuple<int, std::string, std::string>;

constexpr const char* kUntouched = "untouched";

Lookup found(const std::string& token) { return {1, token, ""}; }
Lookup failed(const std::string& err) { return {-1, kUntouched, err}; }

std::string no_section(const std::string& path, const std::string& section) {
    return "[seek_section] not found section[" + section + "]\n[seek_section] not found section[" + section +
           "] in file[" + path + "]\n";
}

std::string no_keyword(const std::string& path, const std::string& section, const std::string& keyword) {
    return "[get_string_in_section] not found keyword[" + keyword + "]\n[get_string_in_section] not found keyword[" +
           keyword + "]; file=" + path + ", section=" + section + "\n";
}

std::string no_token(const std::string& path, const std::string& section, const std::string& keyword, int n,
                     int lnum) {
    return "[get_nth_token_in_file_section] can't found nth(" + std::to_string(n) + ") token; file=" + path +
           ", section=" + section + ", keyword=" + keyword + ", lnum=" + std::to_string(lnum) + "\n";
}

class ReadCfg : public testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(dir_.ok()); }

    std::string write(const std::string& text) {
        std::string path = dir_.file("agent.cfg");
        EXPECT_TRUE(kit::write_file(path, text));
        return path;
    }

    static Lookup lookup(const std::string& path, const std::string& section, const std::string& keyword, int n) {
        char out[kCfgTokenMax + 1];
        std::snprintf(out, sizeof out, "%s", kUntouched);
        testing::internal::CaptureStderr();
        int rc = get_nth_token_in_file_section(path.c_str(), section.c_str(), keyword.c_str(), n, out);
        std::string err = testing::internal::GetCapturedStderr();
        return {rc, out, err};
    }

    test::TempDir dir_;
};

TEST_F(ReadCfg, SectionIsTheFirstHeaderContainingTheNameAndTheFileIsReadOnEveryCall) {
    const std::string missing = dir_.file("agent.cfg");
    EXPECT_EQ(lookup(missing, "A", "K", 1),
              failed("[get_nth_token_in_file_section] fopen fail[" + missing + "]; errno=" + std::to_string(ENOENT) +
                     "(" + std::strerror(ENOENT) + ")\n"));
    std::string p = write(
        "TRAN_LOGF = 0\n"   // 1: names the section but is no header
        " [TRAN_LOGF]\n"    // 2: a header must start in column one
        "[TRAN_LOGF_X]\n"   // 3
        "QUE_CNT = 8\n"     // 4
        "[TRAN_LOGF]\n"     // 5
        "QUE_CNT = 4\n"     // 6
        "[COMMON]\n"        // 7
        "LOG_HOME = log\n"  // 8
    );
    EXPECT_EQ(lookup(p, "TRAN_LOGF", "QUE_CNT", 1), found("8"));
    EXPECT_EQ(lookup(p, "LOGF_X", "QUE_CNT", 1), found("8"));
    EXPECT_EQ(lookup(p, "common", "LOG_HOME", 1), failed(no_section(p, "common")));

    std::FILE* fp = std::fopen(p.c_str(), "r");
    ASSERT_NE(fp, nullptr);
    char value[288] = {};
    EXPECT_EQ(seek_section(fp, "COMMON"), 7);
    EXPECT_EQ(get_string_in_section(fp, "LOG_HOME", value), 1);
    EXPECT_STREQ(value, "log\n");
    EXPECT_EQ(seek_section(fp, "TRAN_LOGF"), 3);  // from the start again
    EXPECT_EQ(get_string_in_section(fp, "QUE_CNT", value), 1);
    EXPECT_STREQ(value, "8\n");
    std::fclose(fp);

    write("[A]\nK = 2\n");
    EXPECT_EQ(lookup(p, "A", "K", 1), found("2"));
}

TEST_F(ReadCfg, KeywordIsTheWholeFirstWordOfALineThatIsNoComment) {
    std::string line = "T17 =";
    for (int i = 1; i <= 17; ++i) line += " v" + std::to_string(i);
    std::string p = write(
        "[TRAN_LOGF]\n"                   // 1
        "QUE_CNT=4\n"                     // 2: first word is QUE_CNT=4
        "que_cnt = 5\n"                   // 3
        "#QUE_CNT = 2\n"                  // 4: comment
        " #QUE_CNT = 3\n"                 // 5: no comment, its first word is #QUE_CNT
        "\n"                              // 6
        "QUE_CNT_MAX = 6\n"               // 7
        "QUE_CNT =4\n"                    // 8
        "QUE_CNT = 7\n"                   // 9: the first match wins
        "  MAX_QUE_CNT\t=\t9   10\n"      // 10
        "FLAGS = a=b c\n"                 // 11: split at the first '='
        "NOVALUE 5\n"                     // 12: no '=', empty value
        + line + "\n"                     // 13: 17 tokens
        "[NEXT]\n"                        // 14
        "LATE_KEY = x\n");                // 15
    EXPECT_EQ(lookup(p, "TRAN_LOGF", "QUE_CNT", 1), found("4"));
    EXPECT_EQ(lookup(p, "TRAN_LOGF", "#QUE_CNT", 1), found("3"));
    EXPECT_EQ(lookup(p, "TRAN_LOGF", "MAX_QUE_CNT", 2), found("10"));
    EXPECT_EQ(lookup(p, "TRAN_LOGF", "FLAGS", 1), found("a=b"));
    EXPECT_EQ(lookup(p, "TRAN_LOGF", "FLAGS", 2), found("c"));
    // Comment and blank lines count in the line number.
    EXPECT_EQ(lookup(p, "TRAN_LOGF", "NOVALUE", 1), failed(no_token(p, "TRAN_LOGF", "NOVALUE", 1, 12)));
    EXPECT_EQ(lookup(p, "TRAN_LOGF", "T17", 16), found("v16"));
    EXPECT_EQ(lookup(p, "TRAN_LOGF", "T17", 17), failed(no_token(p, "TRAN_LOGF", "T17", 17, 13)));
    EXPECT_EQ(lookup(p, "TRAN_LOGF", "QUE", 1), failed(no_keyword(p, "TRAN_LOGF", "QUE")));
    EXPECT_EQ(lookup(p, "TRAN_LOGF", "LATE_KEY", 1), failed(no_keyword(p, "TRAN_LOGF", "LATE_KEY")));
    EXPECT_EQ(lookup(p, "NEXT", "LATE_KEY", 1), found("x"));
}

TEST_F(ReadCfg, LongLinesAreReadInPiecesAndOverlongWordsAreBounded) {
    auto tok = [](int i) { return "tok" + std::string(i < 10 ? "0" : "") + std::to_string(i) + std::string(15, 'a'); };
    std::string longv = "LONGV =";  // 8 characters with the first blank: 247 of the value fit the first piece
    for (int i = 1; i <= 16; ++i) longv += " " + tok(i);
    std::string filler = "#" + std::string(254, 'x');
    std::string k64(64, 'K'), k63(63, 'K'), w63(63, 'W');
    std::string p = write(
        "[TRAN_LOGF]\n"                 // 1
        + filler + "HIDDEN = 7\n"       // 2, 3
        + longv + "\n"                  // 4, 5
        + "BIG = " + std::string(70, 'a') + " next\n"  // 6
        + k64 + " = 1\n" + k63 + " = 2\n"               // 7, 8
        + w63 + "XXXXXXX = 3\n"        // 9: a cut prefix of this word would be w63
        + w63 + " = 4\n"               // 10
        + filler + "[NEW]\n"            // 11, 12: the second piece is a header
        + "BEYOND = z\n");              // 13
    EXPECT_EQ(lookup(p, "TRAN_LOGF", "HIDDEN", 1), found("7"));
    EXPECT_EQ(lookup(p, "TRAN_LOGF", "LONGV", 11), found(tok(11)));
    EXPECT_EQ(lookup(p, "TRAN_LOGF", "LONGV", 12), found(tok(12).substr(0, 16)));
    EXPECT_EQ(lookup(p, "TRAN_LOGF", "LONGV", 13), failed(no_token(p, "TRAN_LOGF", "LONGV", 13, 4)));
    EXPECT_EQ(lookup(p, "TRAN_LOGF", "BIG", 1), found(std::string(63, 'a')));
    EXPECT_EQ(lookup(p, "TRAN_LOGF", "BIG", 2), found("next"));
    EXPECT_EQ(lookup(p, "TRAN_LOGF", k64, 1), failed(no_keyword(p, "TRAN_LOGF", k64)));
    EXPECT_EQ(lookup(p, "TRAN_LOGF", k63, 1), found("2"));
    EXPECT_EQ(lookup(p, "TRAN_LOGF", w63, 1), found("4"));
    EXPECT_EQ(lookup(p, "TRAN_LOGF", "BEYOND", 1), failed(no_keyword(p, "TRAN_LOGF", "BEYOND")));
    EXPECT_EQ(lookup(p, "NEW", "BEYOND", 2), failed(no_token(p, "NEW", "BEYOND", 2, 13)));
}

}  // namespace
}  // namespace varnix
