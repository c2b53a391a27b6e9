// The nibble coder's kernels on AVX-512 (BW): a word's 64 repeat marks in one compare against
// themselves one byte back, straight into a mask; the pack 32 bytes at a time. Only these
// functions carry the wider target; KernelDispatch calls them only where the processor has it.
#include "NibbleKernels.h"

#ifdef __x86_64__
#include <immintrin.h>

__attribute__((target("avx512f,avx512bw"))) size_t MarkRepeatsAvx512(const uint8_t* pNibbles, size_t count,
                                                                     uint64_t* pSame, uint64_t* pThird)
{
    const size_t words = (count + 63) / 64;
    uint64_t carry = 0;
    for (size_t w = 0; w < words; ++w) {
        const uint8_t* p = pNibbles + 64 * w;
        const uint64_t bits = _mm512_cmpeq_epi8_mask(_mm512_loadu_si512(p), _mm512_loadu_si512(p - 1));
        StoreRepeatWord(bits, w, count, carry, pSame, pThird);
    }
    return words;
}

__attribute__((target("avx512f,avx512bw"))) void PackNibblesAvx512(const uint8_t* pStaged, size_t bytes,
                                                                   uint8_t* pOut)
{
    // Each pair of bytes (high nibble first) multiplied by 16 and 1 and summed into its 16-bit
    // lane; the lanes narrowed to bytes in order (the zero-masking form of the narrowing: GCC 12
    // warns of the plain one's undefined source).
    const __m512i weights = _mm512_set1_epi16(0x0110);
    size_t k = 0;
    for (; k + 32 <= bytes; k += 32) {
        const __m512i pairs = _mm512_maddubs_epi16(_mm512_loadu_si512(pStaged + 2 * k), weights);
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(pOut + k), _mm512_maskz_cvtepi16_epi8(~__mmask32(0), pairs));
    }
    PackNibblesFrom(k, pStaged, bytes, pOut);
}
#endif
