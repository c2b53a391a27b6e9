// The portable repeat marks: SSE2, part of every x86-64 processor, where the compiler targets it;
// eight bytes to a word with the zero-byte trick elsewhere.
#include "RepeatMarks.h"

#include "ByteAccess.h"

#ifdef __SSE2__
#include <emmintrin.h>
#endif

size_t MarkRepeatsPortable(const uint8_t* pNibbles, size_t count, uint64_t* pSame, uint64_t* pThird)
{
    const size_t words = (count + 63) / 64;
    uint64_t carry = 0;
    for (size_t w = 0; w < words; ++w) {
        const uint8_t* p = pNibbles + 64 * w;
        uint64_t bits = 0;
#ifdef __SSE2__
        // Each row of sixteen against the same row one byte back.
        for (unsigned k = 0; k < 4; ++k) {
            const __m128i row = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p + 16 * k));
            const __m128i back = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p + 16 * k - 1));
            bits |= uint64_t(unsigned(_mm_movemask_epi8(_mm_cmpeq_epi8(row, back)))) << (16 * k);
        }
#else
        for (unsigned k = 0; k < 8; ++k) {
            const uint64_t equal = ZeroBytes(LoadLE<uint64_t>(p + 8 * k) ^ LoadLE<uint64_t>(p + 8 * k - 1));
            bits |= ((equal >> 7) * 0x0102040810204080ull >> 56) << (8 * k);
        }
#endif
        StoreRepeatWord(bits, w, count, carry, pSame, pThird);
    }
    return words;
}
