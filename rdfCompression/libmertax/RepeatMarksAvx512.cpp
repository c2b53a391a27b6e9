// The repeat marks on AVX-512 (BW): a word's 64 nibbles in one compare against themselves one byte
// back, straight into a mask. Only this function carries the wider target; KernelDispatch calls
// it only where the processor has it.
#include "RepeatMarks.h"

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
#endif
