// Container name from a block of NUL-separated "key=value" strings, such as
// a process's /proc/<pid>/cmdline or environ.
#include <cstring>
#include <string_view>

#include "varnix.h"

namespace {

constexpr size_t kContNmMax = 30;

}  // namespace

extern "C" void set_cont_nm(const char* buf, int32_t len, char* dest, const char* search) {
    if (!buf || !dest || !search || len <= 0) return;
    const std::string_view block(buf, static_cast<size_t>(len));
    const std::string_view needle(search);
    for (size_t i = 1; i < block.size(); ++i) {
        if (block[i] != '\0') continue;
        if (block[i - 1] == '\0') break;  // a double NUL ends the block
        std::string_view rest = block.substr(i + 1);
        std::string_view str = rest.substr(0, rest.find('\0'));  // bounded by the block, terminated or not
        size_t eq = str.find('=');
        if (str.find(needle) == std::string_view::npos || eq == std::string_view::npos) continue;
        std::string_view value = str.substr(eq + 1, kContNmMax);
        std::memcpy(dest, value.data(), value.size());
        dest[value.size()] = '\0';
    }
}
