// The configuration reader on arbitrary file contents, sections, keywords,
// token numbers and output sizes.  The file is rewritten for every input;
// output buffers are exactly as large as the caller says, so ASan sees any
// write past them.
//
// Input: token number (int8), output size byte, section up to a NUL byte,
// keyword up to a NUL byte, then the file contents.
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <span>
#include <string>

#include "core/readcfg.h"
#include "fuzz/byte_reader.h"

namespace {

constexpr size_t kNameMax = 80;

// In memory: a file on disk would make the target a tenth as fast.
std::string path_for_process() {
    return "/dev/shm/varnix-fuzz-readcfg-" + std::to_string(getpid()) + ".cfg";
}

const std::string& cfg_path() {
    static const std::string path = path_for_process();
    return path;
}

std::string name(varnix::fuzz::ByteReader& in) {
    const uint8_t* p = nullptr;
    size_t n = in.until(0, kNameMax, &p);
    return std::string(reinterpret_cast<const char*>(p), n);
}

bool write_cfg(const uint8_t* p, size_t n) {
    std::FILE* fp = std::fopen(cfg_path().c_str(), "wb");
    if (!fp) return false;
    bool ok = std::fwrite(p, 1, n, fp) == n;
    return std::fclose(fp) == 0 && ok;
}

// The section's keyword read from an open file into an output of `out_size`.
void read_string(const std::string& section, const std::string& keyword, size_t out_size) {
    std::FILE* fp = std::fopen(cfg_path().c_str(), "r");
    if (!fp) return;
    std::unique_ptr<char[]> out(new char[out_size]);
    if (varnix::seek_section(fp, section.c_str()) > 0)
        (void)varnix::get_string_in_section(fp, keyword.c_str(), std::span<char>(out.get(), out_size));
    std::fclose(fp);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    if (!write_cfg(reinterpret_cast<const uint8_t*>(""), 0)) {
        std::perror(cfg_path().c_str());
        std::abort();  // every input would test nothing
    }
    if (std::atexit([] { std::remove(cfg_path().c_str()); }) != 0) std::abort();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    varnix::fuzz::ByteReader in(data, size);
    const int n = static_cast<int8_t>(in.byte());
    const size_t out_size = in.byte() + 1;
    const std::string section = name(in);
    const std::string keyword = name(in);
    if (!write_cfg(in.rest(), in.left())) return 0;
    // Exactly as large as a token may be: ASan sees a token written past it
    // or left unterminated (strlen would read on).
    std::unique_ptr<char[]> token(new char[varnix::kCfgTokenMax + 1]);
    if (varnix::get_nth_token_in_file_section(cfg_path().c_str(), section.c_str(), keyword.c_str(), n,
                                              std::span<char>(token.get(), varnix::kCfgTokenMax + 1)) == 1 &&
        (n < 1 || std::strlen(token.get()) > varnix::kCfgTokenMax || std::strchr(token.get(), ' ')))
        std::abort();  // a token for no token number, or not one word of at most kCfgTokenMax characters
    read_string(section, keyword, out_size);
    return 0;
}
