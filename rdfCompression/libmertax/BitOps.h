// Word-parallel bit tricks shared by the coders. All work on plain 64-bit words, so that they
// compile to a few instructions at the baseline target, without intrinsics.
#pragma once

#include "ByteAccess.h"

#include <cstddef>
#include <cstdint>

#ifdef __SSE2__
#include <emmintrin.h>
#endif

// The lowest `count` bits set (count up to 64).
constexpr uint64_t LowBits(unsigned count)
{
    return count >= 64 ? ~uint64_t(0) : (uint64_t(1) << count) - 1;
}

// `value` in every T-sized cell of a 64-bit word.
template <typename T>
constexpr uint64_t RepeatCell(T value)
{
    return uint64_t(value) * (~uint64_t(0) / T(~T(0)));
}

// Bit 7 set in every byte of v that is 0, and nowhere else (no carry crosses a byte).
constexpr uint64_t ZeroBytes(uint64_t v)
{
    return ~(((v & 0x7F7F7F7F7F7F7F7Full) + 0x7F7F7F7F7F7F7F7Full) | v) & 0x8080808080808080ull;
}

// Set bits of v. Without a population-count instruction in the baseline target the builtin
// becomes a library call; the bit-parallel sum is faster than that.
constexpr size_t BitCount(uint64_t v)
{
    v = v - ((v >> 1) & 0x5555555555555555ull);
    v = (v & 0x3333333333333333ull) + ((v >> 2) & 0x3333333333333333ull);
    v = (v + (v >> 4)) & 0x0F0F0F0F0F0F0F0Full;
    return size_t((v * 0x0101010101010101ull) >> 56);
}

// The set bits of each of `words` words into pCounts, and their sum. With SSE2 two words a step:
// the same bit-parallel sum, each word's bytes then added by the sum of absolute differences.
inline size_t BitCounts(const uint64_t* pWords, size_t words, uint8_t* pCounts)
{
    size_t total = 0;
    size_t w = 0;
#ifdef __SSE2__
    const __m128i m1 = _mm_set1_epi8(0x55), m2 = _mm_set1_epi8(0x33), m4 = _mm_set1_epi8(0x0F);
    for (; w + 2 <= words; w += 2) {
        __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(pWords + w));
        v = _mm_sub_epi8(v, _mm_and_si128(_mm_srli_epi16(v, 1), m1));
        v = _mm_add_epi8(_mm_and_si128(v, m2), _mm_and_si128(_mm_srli_epi16(v, 2), m2));
        v = _mm_and_si128(_mm_add_epi8(v, _mm_srli_epi16(v, 4)), m4);
        const __m128i sums = _mm_sad_epu8(v, _mm_setzero_si128());
        const unsigned low = unsigned(_mm_cvtsi128_si32(sums));
        const unsigned high = unsigned(_mm_extract_epi16(sums, 4));
        pCounts[w] = uint8_t(low);
        pCounts[w + 1] = uint8_t(high);
        total += low + high;
    }
#endif
    for (; w < words; ++w) {
        pCounts[w] = uint8_t(BitCount(pWords[w]));
        total += pCounts[w];
    }
    return total;
}

// Bit i set when byte i of the 64 at pNibbles (each below 16) equals `nibble`. With SSE2 (part of
// every x86-64), sixteen per compare. Otherwise eight at a time: a byte that differs is 1 to 15
// after the xor, so adding 0x7F sets its top bit and carries into no other byte; the
// multiplication gathers the eight top bits, each product term on a bit of its own.
inline uint64_t MatchMask64(const uint8_t* pNibbles, uint8_t nibble)
{
#ifdef __SSE2__
    const __m128i repeated = _mm_set1_epi8(char(nibble));
    uint64_t matches = 0;
    for (unsigned k = 0; k < 4; ++k) {
        const __m128i row = _mm_loadu_si128(reinterpret_cast<const __m128i*>(pNibbles + 16 * k));
        matches |= uint64_t(unsigned(_mm_movemask_epi8(_mm_cmpeq_epi8(row, repeated)))) << (16 * k);
    }
    return matches;
#else
    const uint64_t repeated = 0x0101010101010101ull * nibble;
    uint64_t nonMatches = 0;
    for (unsigned w = 0; w < 8; ++w) {
        const uint64_t differ =
            ((LoadLE<uint64_t>(pNibbles + 8 * w) ^ repeated) + 0x7F7F7F7F7F7F7F7Full) & 0x8080808080808080ull;
        nonMatches |= ((differ >> 7) * 0x0102040810204080ull >> 56) << (8 * w);
    }
    return ~nonMatches;
#endif
}

constexpr size_t RoundUp4(size_t n) { return (n + 3) & ~size_t(3); }
