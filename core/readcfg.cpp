#include "core/readcfg.h"

#include <cctype>
#include <cerrno>
#include <cstring>
#include <string_view>

namespace varnix {
namespace {

// fgets with this buffer splits a physical line longer than 255 characters
// into pieces, each counted as a line of its own.
constexpr int kLineBuf = 256;
constexpr int kValueBuf = 288;

bool is_space(char c) { return std::isspace(static_cast<unsigned char>(c)) != 0; }

std::string_view skip_space(std::string_view s) {
    while (!s.empty() && is_space(s.front())) s.remove_prefix(1);
    return s;
}

// The next whitespace-delimited word of `s`, consumed from it.
std::string_view next_word(std::string_view& s) {
    s = skip_space(s);
    size_t n = 0;
    while (n < s.size() && !is_space(s[n])) ++n;
    std::string_view word = s.substr(0, n);
    s.remove_prefix(n);
    return word;
}

void copy_bounded(std::string_view src, std::span<char> out) {
    if (out.empty()) return;
    size_t n = std::min(src.size(), out.size() - 1);
    if (n > 0) std::memcpy(out.data(), src.data(), n);  // an empty view may have no data pointer
    out[n] = '\0';
}

struct FileCloser {
    std::FILE* fp;
    ~FileCloser() {
        if (fp) std::fclose(fp);
    }
};

}  // namespace

int seek_section(std::FILE* fp, const char* section) {
    char line[kLineBuf] = {};
    int lnum = 0;
    std::rewind(fp);
    while (std::fgets(line, sizeof line, fp)) {
        ++lnum;
        if (line[0] == '[' && std::strstr(line, section)) return lnum;
    }
    std::fprintf(stderr, "[seek_section] not found section[%s]\n", section);
    return -1;
}

int get_string_in_section(std::FILE* fp, const char* keyword, std::span<char> out) {
    char line[kLineBuf] = {};
    int lnum = 0;
    while (std::fgets(line, sizeof line, fp)) {
        ++lnum;
        if (line[0] == '[') break;
        if (line[0] == '#' || std::strcmp(line, "\n") == 0) continue;
        std::string_view rest(line);
        std::string_view word = next_word(rest);
        // A first word longer than a token never matches: comparing a cut
        // prefix could match the wrong keyword.
        if (word.size() > kCfgTokenMax || word != keyword) continue;
        std::string_view whole(line);
        size_t eq = whole.find('=');
        copy_bounded(eq == std::string_view::npos ? std::string_view{} : skip_space(whole.substr(eq + 1)), out);
        return lnum;
    }
    std::fprintf(stderr, "[get_string_in_section] not found keyword[%s]\n", keyword);
    return -1;
}

int get_nth_token_in_file_section(const char* path, const char* section, const char* keyword, int n,
                                  std::span<char> out) {
    FileCloser file{std::fopen(path, "r")};
    if (!file.fp) {
        int err = errno;
        std::fprintf(stderr, "[get_nth_token_in_file_section] fopen fail[%s]; errno=%d(%s)\n", path, err,
                     std::strerror(err));
        return -1;
    }
    int header = seek_section(file.fp, section);
    if (header < 0) {
        std::fprintf(stderr, "[seek_section] not found section[%s] in file[%s]\n", section, path);
        return -1;
    }
    char value[kValueBuf] = {};
    int kline = get_string_in_section(file.fp, keyword, value);
    if (kline < 0) {
        std::fprintf(stderr, "[get_string_in_section] not found keyword[%s]; file=%s, section=%s\n", keyword, path,
                     section);
        return -1;
    }
    std::string_view rest(value);
    std::string_view token;
    int count = 0;
    while (count < kCfgTokenCnt && count < n) {
        std::string_view word = next_word(rest);
        if (word.empty()) break;
        token = word;
        ++count;
    }
    if (n >= 1 && count == n) {
        // A token longer than its word buffer is cut to kCfgTokenMax characters.
        copy_bounded(token.substr(0, kCfgTokenMax), out);
        return 1;
    }
    std::fprintf(stderr,
                 "[get_nth_token_in_file_section] can't found nth(%d) token; file=%s, section=%s, keyword=%s, "
                 "lnum=%d\n",
                 n, path, section, keyword, header + kline);
    return -1;
}

}  // namespace varnix
