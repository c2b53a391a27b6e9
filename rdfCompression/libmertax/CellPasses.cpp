// The portable cell passes: SSE2 where the baseline has it, else loops the compiler vectorizes.
#include "CellPasses.h"

#include "ByteAccess.h"

#include <array>
#include <utility>

#ifdef __SSE2__
#include <emmintrin.h>
#endif

uint64_t OrOfWordsPortable(const uint8_t* p, size_t words, uint64_t pattern)
{
    // 32 bytes a step with SSE2, in two accumulators.
    uint64_t result = 0;
    size_t i = 0;
#ifdef __SSE2__
    const __m128i repeated = _mm_set1_epi64x(int64_t(pattern));
    __m128i a = _mm_setzero_si128(), b = _mm_setzero_si128();
    for (; i + 4 <= words; i += 4) {
        a = _mm_or_si128(a, _mm_xor_si128(_mm_loadu_si128(reinterpret_cast<const __m128i*>(p + 8 * i)), repeated));
        b = _mm_or_si128(b, _mm_xor_si128(_mm_loadu_si128(reinterpret_cast<const __m128i*>(p + 8 * i + 16)), repeated));
    }
    a = _mm_or_si128(a, b);
    result = uint64_t(_mm_cvtsi128_si64(a)) | uint64_t(_mm_cvtsi128_si64(_mm_unpackhi_epi64(a, a)));
#endif
    for (; i < words; ++i)
        result |= LoadLE<uint64_t>(p + 8 * i) ^ pattern;
    return result;
}

namespace {

// Byte BYTE of 64 * blocks cells of T: with SSE2 sixteen 16- or 32-bit cells a step; otherwise
// with the byte fixed at compile time, where the compiler sees that the buffers do not overlap
// and vectorizes the loop in the cells' own width.
template <typename T, unsigned BYTE>
void ExtractBytes(const uint8_t* __restrict pCells, size_t blocks, uint8_t* __restrict pBytes)
{
#ifdef __SSE2__
    if constexpr (sizeof(T) == 2 || sizeof(T) == 4) {
        // Each cell's byte into its low byte, then packed down (the packs saturate, which values
        // below 256 never reach).
        const auto lowByte = [](const uint8_t* p) {
            const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
            if constexpr (BYTE == 0)
                return _mm_and_si128(v, _mm_set1_epi32(sizeof(T) == 2 ? 0x00FF00FF : 0xFF));
            else if constexpr (BYTE == sizeof(T) - 1)
                return sizeof(T) == 2 ? _mm_srli_epi16(v, 8) : _mm_srli_epi32(v, 24);
            else
                return _mm_srli_epi32(_mm_slli_epi32(v, 24 - 8 * BYTE), 24);
        };
        for (size_t i = 0; i < 64 * blocks; i += 16) {
            const uint8_t* p = pCells + i * sizeof(T);
            __m128i packed;
            if constexpr (sizeof(T) == 2)
                packed = _mm_packus_epi16(lowByte(p), lowByte(p + 16));
            else
                packed = _mm_packus_epi16(_mm_packs_epi32(lowByte(p), lowByte(p + 16)),
                                          _mm_packs_epi32(lowByte(p + 32), lowByte(p + 48)));
            _mm_storeu_si128(reinterpret_cast<__m128i*>(pBytes + i), packed);
        }
        return;
    }
#endif
    for (size_t i = 0; i < 64 * blocks; ++i)
        pBytes[i] = uint8_t(LoadLE<T>(pCells + i * sizeof(T)) >> (8 * BYTE));
}

using Extractor = void (*)(const uint8_t*, size_t, uint8_t*);

template <typename T, size_t... BYTE>
constexpr std::array<Extractor, 8> ExtractorsOf(std::index_sequence<BYTE...>)
{
    return {&ExtractBytes<T, unsigned(BYTE)>...};
}

// EXTRACTORS[k][byte] for cells of 2 << k bytes.
constexpr std::array<Extractor, 8> EXTRACTORS[3] = {ExtractorsOf<uint16_t>(std::make_index_sequence<2>()),
                                                     ExtractorsOf<uint32_t>(std::make_index_sequence<4>()),
                                                     ExtractorsOf<uint64_t>(std::make_index_sequence<8>())};

} // namespace

void ByteRowPortable(const uint8_t* pCells, size_t cellBytes, unsigned byte, size_t blocks, uint8_t* pRow)
{
    EXTRACTORS[cellBytes == 2 ? 0 : cellBytes == 4 ? 1 : 2][byte](pCells, blocks, pRow);
}
