// The cases of the golden compressed files, shared by their writer and the test that reads them.
#pragma once

#include "SampleData.h"

#include <string>
#include <vector>

constexpr size_t GOLDEN_BYTES = 9000;
// Long enough for every level's hint to be learnt and renewed several times (every 7 segments at
// level 1, every segment at level 7).
constexpr size_t HINT_GOLDEN_BYTES = 61440;

struct SGoldenCase
{
    size_t cellBytes;
    unsigned level;
    bool reduce; // word-size reduction (16-bit cells only)
    EShape shape;
    size_t bytes = GOLDEN_BYTES;

    std::string FileName() const
    {
        std::string name = "u" + std::to_string(8 * cellBytes) + "-level" + std::to_string(level);
        if (cellBytes == 2)
            name += reduce ? "-reduced" : "-plain";
        name += std::string("-") + ShapeName(shape);
        if (bytes != GOLDEN_BYTES)
            name += "-" + std::to_string(bytes);
        return name + ".mtx";
    }
};

inline std::vector<SGoldenCase> GoldenCases()
{
    std::vector<SGoldenCase> cases;
    for (size_t cellBytes : {1, 2, 4, 8})
        for (bool reduce : {false, true})
            for (unsigned level : {0u, 4u, 8u, 9u})
                for (EShape shape : {EShape::LOW_COUNTS, EShape::NEAR_LEVEL, EShape::SPARSE_SPIKES})
                    if (!reduce || cellBytes == 2)
                        cases.push_back({cellBytes, level, reduce, shape});
    // The hint levels, on data whose bias drifts from segment to segment.
    for (size_t cellBytes : {1, 2, 4, 8})
        for (unsigned level = 1; level <= 7; ++level)
            cases.push_back({cellBytes, level, cellBytes == 2, EShape::DRIFTING, HINT_GOLDEN_BYTES});
    return cases;
}
