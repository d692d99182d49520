// hcut on arbitrary bytes, lengths, cuts and encodings.  Whatever the text,
// the kept length must stay within the text and the cut: a longer one would
// let the SQL tracing copy past its buffers.
//
// Input: encoding byte, length byte, cut (int16), then the text.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "fuzz/byte_reader.h"
#include "varnix_collector.h"

namespace {

// Mostly the two encodings; now and then any other value, which cuts to 0.
int encoding_of(uint8_t b) { return (b & 0x80) ? static_cast<int8_t>(b) : (b & 1); }

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    varnix::fuzz::ByteReader in(data, size);
    const int enc = encoding_of(in.byte());
    const uint8_t len_mode = in.byte();
    const int cut = in.number<int16_t>();
    const size_t k = in.left();
    // The buffer holds exactly what the length says, so ASan sees any read
    // past it; a NUL-terminated text gets its terminator and nothing more.
    const bool terminated = len_mode & 1;
    std::unique_ptr<char[]> text(new char[k + (terminated ? 1 : 0)]);
    in.fill(text.get(), k);
    int len = static_cast<int>(k);
    if (terminated) {
        text[k] = '\0';
        len = -1 - (len_mode >> 1);  // every negative length means NUL-terminated
    } else if (len_mode & 2) {
        len = static_cast<int>((len_mode >> 2) % (k + 1));  // a length shorter than the buffer
    }
    const int kept = hcut(text.get(), len, cut, enc);
    const int n = len < 0 ? static_cast<int>(std::strlen(text.get())) : len;
    const int limit = cut < n ? cut : n;
    if (cut >= 0 && (kept < 0 || kept > limit)) {
        std::fprintf(stderr, "hcut(len %d, cut %d, enc %d) kept %d, outside 0..%d\n", len, cut, enc, kept, limit);
        std::abort();
    }
    return 0;
}
