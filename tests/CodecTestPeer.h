// Access to the codec's segment encoder for tests and benchmarks.
#pragma once

#include "OptimalBiasDulo.h"

#include <vector>

class COptimalBiasDuloTestPeer
{
public:
    // Encodes `cells` (already reduced by segmin) as one segment into a buffer of the worst-case
    // size and returns the segment's bytes. The stored fallback may rewrite `cells`.
    template <typename T>
    static std::vector<uint8_t> Deflate(COptimalBiasDulo& codec, std::vector<T>& cells, T segmin, T bias)
    {
        const size_t segSize = cells.size() * sizeof(T);
        std::vector<uint8_t> out(codec.GetWorstCaseCmpBufSize(sizeof(T), segSize));
        out.resize(codec.Deflate<T>(reinterpret_cast<uint8_t*>(cells.data()), uint16_t(segSize), segmin, bias,
                                    out.data()));
        return out;
    }

    template <typename T>
    static bool GetBiasHint(COptimalBiasDulo& codec, const std::vector<uint8_t>& segment, T& hint)
    {
        return codec.GetBiasHint<T>(segment.data(), segment.size(), &hint);
    }
};
