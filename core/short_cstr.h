// A caller's short C string taken in one 16-byte load.  Most names a program
// passes (functions, modules, sources) are shorter than 16 bytes; strnlen and
// a copy sized after it cost several times what one load, one compare and
// one store do.
#pragma once

#include <cstddef>
#include <cstdint>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace varnix {

// Whether the `N` bytes from `p` lie in the page of its first byte: never for
// null, and, for the same price, never from a page's first byte (the
// caller's slower way takes both).
template <uintptr_t N>
inline bool in_one_page(const void* p) {
    constexpr uintptr_t kPage = 4096;
    return ((reinterpret_cast<uintptr_t>(p) - 1) & (kPage - 1)) < kPage - N;
}

// Copies the string at `src` into `dst` when it ends (its NUL) within its
// first 16 bytes: the name and then 16 zeros.  False, with `dst` untouched,
// for null, when it is longer, when its first 16 bytes may reach into the
// next page, or where the processor has no 16-byte compare: the caller
// measures it then.
//
// The load reads past the NUL, never past the page the string's first byte
// lies in, so it cannot fault; the sanitizers, which would report the bytes
// beyond the string's end, are told not to look.
template <size_t N>
__attribute__((no_sanitize("address", "thread"))) inline bool copy_short_cstr(char (&dst)[N], const char* src) {
    static_assert(N >= 31);
#if defined(__SSE2__)
    if (!in_one_page<16>(src)) return false;
    const __m128i bytes = _mm_loadu_si128(reinterpret_cast<const __m128i*>(src));
    const auto nul = static_cast<uint32_t>(_mm_movemask_epi8(_mm_cmpeq_epi8(bytes, _mm_setzero_si128())));
    if (nul == 0) return false;
    // The bytes the load took past the NUL are covered by zeros at once:
    // two stores cost less than masking them out.
    _mm_storeu_si128(reinterpret_cast<__m128i*>(dst), bytes);
    _mm_storeu_si128(reinterpret_cast<__m128i*>(dst + __builtin_ctz(nul)), _mm_setzero_si128());
    return true;
#else
    (void)dst;
    (void)src;
    return false;
#endif
}

// The 8 bytes at `src` (little-endian) into `out`, when they lie in the page
// of its first byte; false, with `out` untouched, for null or when they may
// not (in_one_page).  They
// may reach past the string's NUL: the caller looks at bytes before it only.
__attribute__((no_sanitize("address", "thread"))) inline bool load_8_in_page(const char* src, uint64_t& out) {
    if (!in_one_page<8>(src)) return false;
    __builtin_memcpy(&out, src, 8);
    return true;
}

}  // namespace varnix
