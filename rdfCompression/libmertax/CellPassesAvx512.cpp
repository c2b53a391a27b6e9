// The cell passes on AVX-512 (F and BW): 64 bytes a step; a row's bytes come from shifting each
// cell's byte to the bottom and the truncating moves (vpmovwb, vpmovdb, vpmovqb). Only these
// functions carry the wider target; KernelDispatch calls them only where the processor has it.
#include "CellPasses.h"

#ifdef __x86_64__
#include <immintrin.h>

#define MERTAX_AVX512_TARGET __attribute__((target("avx512f,avx512bw")))

// (GCC's headers fill unused merge sources from self-initialized variables, which the
// uninitialized-use warnings report; no value of them reaches a result.)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wuninitialized"
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"

MERTAX_AVX512_TARGET uint64_t OrOfWordsAvx512(const uint8_t* p, size_t words, uint64_t pattern)
{
    // Two accumulators: this processor runs each 512-bit operation as two halves.
    const __m512i repeated = _mm512_set1_epi64(int64_t(pattern));
    __m512i a = _mm512_setzero_si512(), b = _mm512_setzero_si512();
    size_t i = 0;
    for (; i + 16 <= words; i += 16) {
        a = _mm512_or_si512(a, _mm512_xor_si512(_mm512_loadu_si512(p + 8 * i), repeated));
        b = _mm512_or_si512(b, _mm512_xor_si512(_mm512_loadu_si512(p + 8 * i + 64), repeated));
    }
    if (i + 8 <= words) {
        a = _mm512_or_si512(a, _mm512_xor_si512(_mm512_loadu_si512(p + 8 * i), repeated));
        i += 8;
    }
    // The last words with a masked load: a zero lane XOR the pattern would add the pattern.
    const __mmask8 last = __mmask8((1u << (words - i)) - 1);
    a = _mm512_or_si512(a, _mm512_maskz_xor_epi64(last, _mm512_maskz_loadu_epi64(last, p + 8 * i), repeated));
    return uint64_t(_mm512_reduce_or_epi64(_mm512_or_si512(a, b)));
}

MERTAX_AVX512_TARGET void ByteRowAvx512(const uint8_t* pCells, size_t cellBytes, unsigned byte, size_t blocks,
                                        uint8_t* pRow)
{
    const __m128i shift = _mm_cvtsi32_si128(int(8 * byte));
    const size_t cells = 64 * blocks;
    switch (cellBytes) {
    case 2:
        for (size_t i = 0; i < cells; i += 32)
            _mm256_storeu_si256(reinterpret_cast<__m256i*>(pRow + i),
                                _mm512_cvtepi16_epi8(_mm512_srl_epi16(_mm512_loadu_si512(pCells + 2 * i), shift)));
        break;
    case 4:
        for (size_t i = 0; i < cells; i += 16)
            _mm_storeu_si128(reinterpret_cast<__m128i*>(pRow + i),
                             _mm512_cvtepi32_epi8(_mm512_srl_epi32(_mm512_loadu_si512(pCells + 4 * i), shift)));
        break;
    default:
        for (size_t i = 0; i < cells; i += 8)
            _mm_storel_epi64(reinterpret_cast<__m128i*>(pRow + i),
                             _mm512_cvtepi64_epi8(_mm512_srl_epi64(_mm512_loadu_si512(pCells + 8 * i), shift)));
        break;
    }
}
#pragma GCC diagnostic pop
#endif
