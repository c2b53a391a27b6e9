// The portable forms: SSE2, part of every x86-64 processor, where the compiler targets it; eight
// bytes to a word with word tricks elsewhere.
#include "NibbleKernels.h"

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

void PackNibblesPortable(const uint8_t* pStaged, size_t bytes, uint8_t* pOut)
{
    size_t k = 0;
#ifdef __SSE2__
    // Each 16-bit lane's pair into its low byte, then the lanes closed up by a saturating pack.
    const __m128i lowByte = _mm_set1_epi16(0xFF);
    for (; k + 8 <= bytes; k += 8) {
        const __m128i x = _mm_loadu_si128(reinterpret_cast<const __m128i*>(pStaged + 2 * k));
        const __m128i pairs = _mm_and_si128(_mm_or_si128(_mm_slli_epi16(x, 4), _mm_srli_epi16(x, 8)), lowByte);
        _mm_storel_epi64(reinterpret_cast<__m128i*>(pOut + k), _mm_packus_epi16(pairs, pairs));
    }
#endif
    for (; k + 4 <= bytes; k += 4) {
        const uint64_t x = LoadLE<uint64_t>(pStaged + 2 * k);
        uint64_t v = ((x << 4) | (x >> 8)) & 0x00FF00FF00FF00FFull;
        v = (v | v >> 8) & 0x0000FFFF0000FFFFull;
        StoreLE<uint32_t>(pOut + k, uint32_t(v | v >> 16));
    }
    PackNibblesFrom(k, pStaged, bytes, pOut);
}
