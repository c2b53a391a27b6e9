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
        constexpr unsigned NIBBLES = 2 * sizeof(T);
        std::array<HISTO, NIBBLES> histo{}; // histo[0]: the least significant nibble
        for (size_t w = 0; w < elems; ++w) {
            const T temp = LoadLE<T>(data + w * sizeof(T));
            for (unsigned nib = 0; nib < NIBBLES; ++nib)
                ++histo[nib][(temp >> (4 * nib)) & 0xF];
        }
        uint64_t result = 0;
        for (unsigned nib = NIBBLES; nib-- > 0;)
            result = result << 4 | GetMax(histo[nib]);
        return T(result);
    }
};
