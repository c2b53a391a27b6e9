// Deterministic sample data shared by the tests, the benchmarks and the demo: the shapes that
// detector raw data takes (low counts with many zeros, values around a common level) and the
// awkward ones (constant, random full range, sparse spikes).
#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>
#include <random>
#include <string>
#include <vector>

enum class EShape
{
    ZEROS,
    CONSTANT,
    LOW_COUNTS,   // Poisson, mean 0.3: mostly zeros
    NEAR_LEVEL,   // a common level with small deviations
    RANDOM,       // full range of the type
    SPARSE_SPIKES // zeros with rare large values
};

inline const char* ShapeName(EShape shape)
{
    switch (shape) {
    case EShape::ZEROS: return "zeros";
    case EShape::CONSTANT: return "constant";
    case EShape::LOW_COUNTS: return "low-counts";
    case EShape::NEAR_LEVEL: return "near-level";
    case EShape::RANDOM: return "random";
    case EShape::SPARSE_SPIKES: return "sparse-spikes";
    }
    return "?";
}

constexpr EShape ALL_SHAPES[] = {EShape::ZEROS,  EShape::CONSTANT, EShape::LOW_COUNTS,
                                 EShape::NEAR_LEVEL, EShape::RANDOM, EShape::SPARSE_SPIKES};

template <typename T>
std::vector<T> MakeShape(EShape shape, size_t count, uint64_t seed = 1)
{
    std::mt19937_64 rng(seed);
    const uint64_t max = std::numeric_limits<T>::max();
    std::vector<T> cells(count);
    switch (shape) {
    case EShape::ZEROS:
        break;
    case EShape::CONSTANT:
        for (T& c : cells)
            c = T(0xA5A5A5A5A5A5A5A5ull & max);
        break;
    case EShape::LOW_COUNTS: {
        std::poisson_distribution<unsigned> counts(0.3);
        for (T& c : cells)
            c = T(counts(rng));
        break;
    }
    case EShape::NEAR_LEVEL: {
        const uint64_t level = max / 3;
        std::uniform_int_distribution<int> deviation(-20, 20);
        for (T& c : cells)
            c = T(level + uint64_t(int64_t(deviation(rng))));
        break;
    }
    case EShape::RANDOM:
        for (T& c : cells)
            c = T(rng());
        break;
    case EShape::SPARSE_SPIKES:
        for (T& c : cells)
            c = rng() % 97 == 0 ? T(rng()) : T(0);
        break;
    }
    return cells;
}
