// Cells put together from rows of their bytes: row b, at pRows + b * stride, holds byte b of every
// cell. The decoder builds each byte of a segment's cells in a row of its own (its two nibble
// planes merged a byte at a time) and stores every cell once, here, at the end.
#pragma once

#include "ByteAccess.h"

#include <cstddef>
#include <cstdint>

#ifdef __SSE2__
#include <emmintrin.h>
#endif

// Writes `count` cells of TCell from the sizeof(T) rows at pRows; a TCell wider than T takes the
// value zero-extended.
template <typename T, typename TCell = T>
void InterleaveRows(const uint8_t* pRows, size_t stride, size_t count, uint8_t* pCells)
{
    static_assert(sizeof(TCell) >= sizeof(T), "cells hold their value");
    size_t i = 0;
#ifdef __SSE2__
    // Sixteen cells a step: the rows' bytes paired by unpacking, then the pairs paired, and so on
    // up to the cell's width; a missing row is zero.
    const auto row = [&](unsigned b) {
        return b < sizeof(T) ? _mm_loadu_si128(reinterpret_cast<const __m128i*>(pRows + b * stride + i))
                             : _mm_setzero_si128();
    };
    const auto store = [&](size_t k, __m128i v) {
        _mm_storeu_si128(reinterpret_cast<__m128i*>(pCells + i * sizeof(TCell) + 16 * k), v);
    };
    for (; i + 16 <= count; i += 16) {
        if constexpr (sizeof(TCell) == 2) {
            const __m128i r0 = row(0), r1 = row(1);
            store(0, _mm_unpacklo_epi8(r0, r1));
            store(1, _mm_unpackhi_epi8(r0, r1));
        } else if constexpr (sizeof(TCell) == 4) {
            const __m128i r0 = row(0), r1 = row(1), r2 = row(2), r3 = row(3);
            const __m128i lo01 = _mm_unpacklo_epi8(r0, r1), hi01 = _mm_unpackhi_epi8(r0, r1);
            const __m128i lo23 = _mm_unpacklo_epi8(r2, r3), hi23 = _mm_unpackhi_epi8(r2, r3);
            store(0, _mm_unpacklo_epi16(lo01, lo23));
            store(1, _mm_unpackhi_epi16(lo01, lo23));
            store(2, _mm_unpacklo_epi16(hi01, hi23));
            store(3, _mm_unpackhi_epi16(hi01, hi23));
        } else if constexpr (sizeof(TCell) == 8) {
            __m128i pairs[8], quads[8];
            for (unsigned b = 0; b < 8; b += 2) {
                const __m128i even = row(b), odd = row(b + 1);
                pairs[b] = _mm_unpacklo_epi8(even, odd);
                pairs[b + 1] = _mm_unpackhi_epi8(even, odd);
            }
            // quads[4h + k]: cells 4k to 4k + 3, bytes 4h to 4h + 3
            for (unsigned h = 0; h < 2; ++h) {
                for (unsigned half = 0; half < 2; ++half) {
                    const __m128i low = pairs[4 * h + half], high = pairs[4 * h + 2 + half];
                    quads[4 * h + 2 * half] = _mm_unpacklo_epi16(low, high);
                    quads[4 * h + 2 * half + 1] = _mm_unpackhi_epi16(low, high);
                }
            }
            for (unsigned k = 0; k < 4; ++k) {
                store(2 * k, _mm_unpacklo_epi32(quads[k], quads[4 + k]));
                store(2 * k + 1, _mm_unpackhi_epi32(quads[k], quads[4 + k]));
            }
        }
    }
#endif
    for (; i < count; ++i) {
        TCell value = 0;
        for (unsigned b = 0; b < sizeof(T); ++b)
            value = TCell(value | TCell(TCell(pRows[b * stride + i]) << (8 * b)));
        StoreLE<TCell>(pCells + i * sizeof(TCell), value);
    }
}
