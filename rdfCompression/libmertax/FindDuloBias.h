// Histogram search for a segment's bias: each nibble of the bias is the most frequent value of
// that nibble position over the segment's elements.
#pragma once

#include "ByteAccess.h"

#include <array>
#include <cstddef>
#include <cstdint>

// Count of each nibble value 0 to 15, visited in ascending order; a value never seen counts 0.
using HISTO = std::array<size_t, 16>;

// The most frequent nibble; a tie goes to the smaller value, an empty histogram gives 0.
inline uint8_t GetMax(const HISTO& x)
{
    uint8_t maxKey = 0;
    size_t maxCnt = 0;
    for (uint8_t key = 0; key < 16; ++key) {
        if (x[key] > maxCnt) {
            maxKey = key;
            maxCnt = x[key];
        }
    }
    return maxKey;
}

template <typename T>
class CFindDuloBias
{
public:
    // data holds elems little-endian elements, every one of which is counted.
    T FindDuloBias(const uint8_t* data, size_t elems) const
    {
        // Each byte of an element is counted once, among the 256 values of its position; the
        // histograms of its two nibbles follow from those counts at the end. Half the increments
        // of counting every nibble, for the same histograms. Even and odd elements are counted
        // apart, so that a value repeated from one element to the next does not make every
        // increment wait for the one before.
        std::array<std::array<uint32_t, 256>, sizeof(T)> byteCounts{};
        std::array<std::array<uint32_t, 256>, sizeof(T)> oddCounts{};
        size_t w = 0;
        for (; w + 2 <= elems; w += 2) {
#pragma GCC unroll 8
            for (unsigned b = 0; b < sizeof(T); ++b) {
                ++byteCounts[b][data[w * sizeof(T) + b]];
                ++oddCounts[b][data[(w + 1) * sizeof(T) + b]];
            }
        }
        for (; w < elems; ++w)
            for (unsigned b = 0; b < sizeof(T); ++b)
                ++byteCounts[b][data[w * sizeof(T) + b]];
        for (unsigned b = 0; b < sizeof(T); ++b)
            for (unsigned v = 0; v < 256; ++v)
                byteCounts[b][v] += oddCounts[b][v];
        uint64_t result = 0;
        for (unsigned b = sizeof(T); b-- > 0;) {
            HISTO high{}, low{};
            for (unsigned h = 0; h < 16; ++h) {
                for (unsigned l = 0; l < 16; ++l) {
                    high[h] += byteCounts[b][16 * h + l];
                    low[l] += byteCounts[b][16 * h + l];
                }
            }
            result = result << 8 | unsigned(GetMax(high)) << 4 | GetMax(low);
        }
        return T(result);
    }
};
