// The nibble coder's kernels on AVX2: a word's 64 repeat marks in two compares of 32 against
// themselves one byte back; the pack 16 bytes at a time. Only these functions carry the wider
// target; KernelDispatch calls them only where the processor has it.
#include "NibbleKernels.h"

#ifdef __x86_64__
#include <immintrin.h>

__attribute__((target("avx2"))) size_t MarkRepeatsAvx2(const uint8_t* pNibbles, size_t count, uint64_t* pSame,
                                                       uint64_t* pThird)
{
    const size_t words = (count + 63) / 64;
    uint64_t carry = 0;
    for (size_t w = 0; w < words; ++w) {
        const uint8_t* p = pNibbles + 64 * w;
        uint64_t bits = 0;
        for (unsigned k = 0; k < 2; ++k) {
            const __m256i row = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p + 32 * k));
            const __m256i back = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p + 32 * k - 1));
            bits |= uint64_t(uint32_t(_mm256_movemask_epi8(_mm256_cmpeq_epi8(row, back)))) << (32 * k);
        }
        StoreRepeatWord(bits, w, count, carry, pSame, pThird);
    }
    return words;
}

__attribute__((target("avx2"))) void PackNibblesAvx2(const uint8_t* pStaged, size_t bytes, uint8_t* pOut)
{
    // Each pair of bytes (high nibble first) multiplied by 16 and 1 and summed into its 16-bit
    // lane; the lanes packed back to bytes, which puts the two halves' 8 bytes side by side.
    const __m256i weights = _mm256_set1_epi16(0x0110);
    size_t k = 0;
    for (; k + 16 <= bytes; k += 16) {
        const __m256i x = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(pStaged + 2 * k));
        const __m256i pairs = _mm256_maddubs_epi16(x, weights);
        const __m128i packed = _mm_packus_epi16(_mm256_castsi256_si128(pairs), _mm256_extracti128_si256(pairs, 1));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(pOut + k), packed);
    }
    PackNibblesFrom(k, pStaged, bytes, pOut);
}
#endif
