#include "fuzz/api_args.h"

#include <climits>
#include <cstring>
#include <iterator>

namespace varnix::fuzz {
namespace {

constexpr size_t kShortMax = 64;
constexpr size_t kLongMax = 9000;  // past the 8192 bytes an SQL text keeps

// Words that open doors: listed and unlisted services, the DBIO signature,
// GIDs, event and error numbers, dates and times, SQL, Korean text in both
// encodings.
constexpr const char* kWords[] = {
    "SVC_ACCT_INQUIRY", "SVC_TRANSFER", "DBIO_SELECT_ACCT", "DBIO_UPDATE", "BIZ_CALC_FEE",
    "20260101-FUZZ-000000000000000001", "20260101-FUZZ-000000000000000002", "1105", "1508", "1810", "9999",
    "20260102", "030405123456", "SELECT * FROM ACCT WHERE ID = :1", "\xea\xb0\x80\xeb\x82\x98\xeb\x8b\xa4",
    "\xb0\xa1\xb0\xa2\xb0\xa3", "WEB", "", " ",
};

}  // namespace

char* Args::alloc(size_t n) {
    bufs_.emplace_back(new char[n]);
    return bufs_.back().get();
}

int32_t Args::tid() {
    uint8_t b = in_.byte();
    int32_t tid = (b & 0x80) ? -1 : b % kGivenTids;
    used_ |= 1u << (tid + 1);
    return tid;
}

Text Args::bytes(size_t n, bool terminated) {
    char* p = alloc(n + (terminated ? 1 : 0));
    // A long text repeats its first bytes, so that it does not swallow the
    // operations after it.
    size_t taken = n < kShortMax ? n : kShortMax;
    in_.fill(p, taken);
    for (size_t i = taken; i < n; ++i) p[i] = p[i - taken];
    if (terminated) p[n] = '\0';
    return {p, terminated ? -1 : static_cast<int32_t>(n)};
}

Text Args::word(bool terminated) {
    const char* w = kWords[in_.byte() % std::size(kWords)];
    size_t n = std::strlen(w);
    char* p = alloc(n + (terminated ? 1 : 0));
    std::memcpy(p, w, n + (terminated ? 1 : 0));
    return {p, terminated ? -1 : static_cast<int32_t>(n)};
}

Text Args::text() {
    switch (in_.byte() % 8) {
        case 0: return {nullptr, static_cast<int32_t>(static_cast<int8_t>(in_.byte()))};
        case 1: return bytes(in_.byte() % kShortMax, true);
        case 2: return bytes(in_.byte() % kShortMax, false);
        case 3: return bytes(in_.number<uint16_t>() % kLongMax, false);
        case 4: return bytes(in_.number<uint16_t>() % kLongMax, true);
        case 5: return word(true);
        case 6: return word(false);
        default: {
            // Any negative length means NUL-terminated, not only -1.
            Text t = bytes(in_.byte() % kShortMax, true);
            t.len = (in_.byte() & 1) ? INT32_MIN : -2;
            return t;
        }
    }
}

Text Args::cstr() {
    uint8_t mode = in_.byte();
    Text t;
    switch (mode % 4) {
        case 0: return {nullptr, -1};
        case 1: t = bytes(in_.byte() % kShortMax, true); break;
        case 2: t = bytes(in_.number<uint16_t>() % kLongMax, true); break;
        default: t = word(true); break;
    }
    if (mode & 4) t.len = static_cast<int32_t>(std::strlen(t.p));
    return t;
}

const void* Args::blob(size_t n) {
    char* p = alloc(n);
    in_.fill(p, n);
    return p;
}

}  // namespace varnix::fuzz
