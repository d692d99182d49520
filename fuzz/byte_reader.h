// Reads a fuzz input front to back.  Once the input is used up every read
// gives zero, so a short input still decodes into a complete, if dull, case.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace varnix::fuzz {

class ByteReader {
public:
    ByteReader(const uint8_t* data, size_t size) : p_(data), left_(size) {}

    bool empty() const { return left_ == 0; }
    size_t left() const { return left_; }

    uint8_t byte() {
        if (left_ == 0) return 0;
        --left_;
        return *p_++;
    }

    template <typename T>
    T number() {
        T v{};
        size_t n = sizeof v < left_ ? sizeof v : left_;
        if (n > 0) std::memcpy(&v, p_, n);
        p_ += n;
        left_ -= n;
        return v;
    }

    // Copies up to `n` bytes into `dst`, the rest of `dst` filled with 'a';
    // the number of input bytes taken.
    size_t fill(char* dst, size_t n) {
        size_t k = n < left_ ? n : left_;
        if (k > 0) std::memcpy(dst, p_, k);
        if (n > k) std::memset(dst + k, 'a', n - k);
        p_ += k;
        left_ -= k;
        return k;
    }

    // The bytes up to the next `stop` byte (which is consumed) or the end,
    // at most `max` of them.
    size_t until(uint8_t stop, size_t max, const uint8_t** start) {
        *start = p_;
        size_t n = 0;
        while (n < left_ && n < max && p_[n] != stop) ++n;
        size_t consumed = n < left_ && p_[n] == stop ? n + 1 : n;
        p_ += consumed;
        left_ -= consumed;
        return n;
    }

    // Everything not read yet.
    const uint8_t* rest() const { return p_; }

private:
    const uint8_t* p_;
    size_t left_;
};

}  // namespace varnix::fuzz
