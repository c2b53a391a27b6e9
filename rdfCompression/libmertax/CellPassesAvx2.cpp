// The cell passes on AVX2: 64 bytes a step; a row's bytes come from shifting each cell's byte to
// the bottom of its cell and packing (the packs work within 128-bit halves, so a permute puts the
// halves' results back in order). Only these functions carry the wider target; KernelDispatch
// calls them only where the processor has it.
#include "CellPasses.h"

#include "ByteAccess.h"

#ifdef __x86_64__
#include <immintrin.h>

#define MERTAX_AVX2_TARGET __attribute__((target("avx2")))

MERTAX_AVX2_TARGET uint64_t OrOfWordsAvx2(const uint8_t* p, size_t words, uint64_t pattern)
{
    const __m256i repeated = _mm256_set1_epi64x(int64_t(pattern));
    __m256i a = _mm256_setzero_si256(), b = _mm256_setzero_si256();
    size_t i = 0;
    for (; i + 8 <= words; i += 8) {
        const __m256i first = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p + 8 * i));
        const __m256i second = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p + 8 * i + 32));
        a = _mm256_or_si256(a, _mm256_xor_si256(first, repeated));
        b = _mm256_or_si256(b, _mm256_xor_si256(second, repeated));
    }
    a = _mm256_or_si256(a, b);
    const __m128i half = _mm_or_si128(_mm256_castsi256_si128(a), _mm256_extracti128_si256(a, 1));
    uint64_t result = uint64_t(_mm_cvtsi128_si64(half)) | uint64_t(_mm_extract_epi64(half, 1));
    for (; i < words; ++i)
        result |= LoadLE<uint64_t>(p + 8 * i) ^ pattern;
    return result;
}

MERTAX_AVX2_TARGET void ByteRowAvx2(const uint8_t* pCells, size_t cellBytes, unsigned byte, size_t blocks,
                                    uint8_t* pRow)
{
    const __m128i shift = _mm_cvtsi32_si128(int(8 * byte));
    const size_t cells = 64 * blocks;
    switch (cellBytes) {
    case 2: {
        // 32 cells a step: each cell's byte into its low byte, packed to bytes, halves in order.
        const __m256i low = _mm256_set1_epi16(0xFF);
        for (size_t i = 0; i < cells; i += 32) {
            const __m256i a = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(pCells + 2 * i));
            const __m256i b = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(pCells + 2 * i + 32));
            const __m256i packed = _mm256_packus_epi16(_mm256_and_si256(_mm256_srl_epi16(a, shift), low),
                                                       _mm256_and_si256(_mm256_srl_epi16(b, shift), low));
            _mm256_storeu_si256(reinterpret_cast<__m256i*>(pRow + i), _mm256_permute4x64_epi64(packed, 0xD8));
        }
        break;
    }
    case 4: {
        // 32 cells a step: to words, then to bytes; each pack interleaves the halves, which one
        // dword permute undoes.
        const __m256i low = _mm256_set1_epi32(0xFF);
        const __m256i order = _mm256_setr_epi32(0, 4, 1, 5, 2, 6, 3, 7);
        for (size_t i = 0; i < cells; i += 32) {
            __m256i v[4];
            for (unsigned k = 0; k < 4; ++k) {
                const __m256i cells8 = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(pCells + 4 * i + 32 * k));
                v[k] = _mm256_and_si256(_mm256_srl_epi32(cells8, shift), low);
            }
            const __m256i bytes = _mm256_packus_epi16(_mm256_packus_epi32(v[0], v[1]), _mm256_packus_epi32(v[2], v[3]));
            _mm256_storeu_si256(reinterpret_cast<__m256i*>(pRow + i), _mm256_permutevar8x32_epi32(bytes, order));
        }
        break;
    }
    default:
        // 64-bit cells have too few bytes a register to gain over SSE2.
        ByteRowPortable(pCells, cellBytes, byte, blocks, pRow);
        break;
    }
}
#endif
