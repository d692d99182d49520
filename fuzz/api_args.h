// Arguments of the tracing entries decoded from a fuzz input.  Every text is
// a heap buffer exactly as large as its length says (plus the terminator of a
// NUL-terminated one), so ASan reports any read past what a caller would
// have given.  The buffers live until the input is done.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "fuzz/byte_reader.h"

namespace varnix::fuzz {

// Thread ids given explicitly: 0 .. kGivenTids - 1.
inline constexpr int32_t kGivenTids = 8;

struct Text {
    const char* p = nullptr;
    int32_t len = 0;
};

class Args {
public:
    explicit Args(ByteReader& in) : in_(in) {}

    ByteReader& in() { return in_; }

    // A negative thread id (the caller) or one of a few given ids, 0 being
    // the process context: the contexts stay few however long the run.
    int32_t tid();
    // Whether tid() gave `tid` since construction.
    bool used(int32_t tid) const { return used_ & (1u << (tid < 0 ? 0 : tid + 1)); }
    // A (pointer, length) pair: null, NUL-terminated (any negative length),
    // an exact length, 0 to 9000 bytes, or a word the library looks for.
    Text text();
    // A NUL-terminated text, for the arguments read as such; its length is
    // -1 or the text's own.
    Text cstr();
    // `n` bytes taken from the input.
    const void* blob(size_t n);

private:
    char* alloc(size_t n);
    Text bytes(size_t n, bool terminated);
    Text word(bool terminated);

    ByteReader& in_;
    uint32_t used_ = 0;
    std::vector<std::unique_ptr<char[]>> bufs_;
};

}  // namespace varnix::fuzz
