// The repeat marks on AVX2: a word's 64 nibbles in two compares of 32 against themselves one byte
// back. Only this function carries the wider target; KernelDispatch calls it only where the
// processor has it.
#include "RepeatMarks.h"

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
#endif
