// The cases of the golden compressed files, shared by their writer and the test that reads them.
#pragma once

#include "SampleData.h"

#include <string>
#include <vector>

constexpr size_t GOLDEN_BYTES = 9000;

struct SGoldenCase
{
    size_t cellBytes;
    unsigned level;
    bool reduce; // word-size reduction (16-bit cells only)
    EShape shape;

    std::string FileName() const
    {
        std::string name = "u" + std::to_string(8 * cellBytes) + "-level" + std::to_string(level);
        if (cellBytes == 2)
            name += reduce ? "-reduced" : "-plain";
        return name + "-" + ShapeName(shape) + ".mtx";
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
    return cases;
}
