// Deterministic sample data shared by the tests, the benchmarks and the demo: the shapes that
// detector raw data takes (low counts with many zeros, values around a common level) and the
// awkward ones (constant, random full range, sparse spikes).
#pragma once

#include <algorithm>
#include <cmath>
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
    SPARSE_SPIKES, // zeros with rare large values
    DRIFTING       // a level that steps every 1500 cells, with small deviations and many exact hits
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
    case EShape::DRIFTING: return "drifting";
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
    case EShape::DRIFTING: {
        const int64_t step = int64_t(max / 64 + 1);
        int64_t level = int64_t(max / 5);
        std::uniform_int_distribution<int> deviation(-6, 6);
        for (size_t i = 0; i < count; ++i) {
            if (i % 1500 == 1499)
                level += int64_t(rng() % uint64_t(2 * step + 1)) - step;
            cells[i] = T(uint64_t(level) + (rng() % 3 == 0 ? 0 : uint64_t(int64_t(deviation(rng)))));
        }
        break;
    }
    }
    return cells;
}

// The shape as `count` little-endian cells of cellSize (1, 2, 4 or 8) bytes.
inline std::vector<uint8_t> MakeShapeBytes(EShape shape, size_t cellSize, size_t count, uint64_t seed = 1)
{
    auto asBytes = [](const auto& cells) {
        const auto* p = reinterpret_cast<const uint8_t*>(cells.data());
        return std::vector<uint8_t>(p, p + cells.size() * sizeof(cells[0]));
    };
    switch (cellSize) {
    case 1: return MakeShape<uint8_t>(shape, count, seed);
    case 2: return asBytes(MakeShape<uint16_t>(shape, count, seed));
    case 4: return asBytes(MakeShape<uint32_t>(shape, count, seed));
    default: return asBytes(MakeShape<uint64_t>(shape, count, seed));
    }
}

// Realistic detector data sets, as a byte buffer of cells.
enum class EDataSet
{
    TOF_SINOGRAM, // 16-bit, Poisson means 0.05 to 3 varying across the sinogram: mostly zeros
    PROMPTS,      // 16-bit, Poisson means 5 to 40
    SINGLES,      // 32-bit, counts around a common level with a slow drift
    IMAGE_8BIT,   // 8-bit low-count image
    COUNTERS_64,  // 64-bit counters that grow slowly
    SMALL_16      // 16-bit values below 256
};

constexpr EDataSet ALL_DATA_SETS[] = {EDataSet::TOF_SINOGRAM, EDataSet::PROMPTS,     EDataSet::SINGLES,
                                      EDataSet::IMAGE_8BIT,   EDataSet::COUNTERS_64, EDataSet::SMALL_16};

struct SSampleBuffer
{
    const char* name;
    size_t cellSize;
    std::vector<uint8_t> bytes;
};

inline size_t DataSetCellSize(EDataSet set)
{
    switch (set) {
    case EDataSet::SINGLES: return 4;
    case EDataSet::IMAGE_8BIT: return 1;
    case EDataSet::COUNTERS_64: return 8;
    default: return 2;
    }
}

inline const char* DataSetName(EDataSet set)
{
    switch (set) {
    case EDataSet::TOF_SINOGRAM: return "tof-sinogram-u16";
    case EDataSet::PROMPTS: return "prompts-u16";
    case EDataSet::SINGLES: return "singles-u32";
    case EDataSet::IMAGE_8BIT: return "image-u8";
    case EDataSet::COUNTERS_64: return "counters-u64";
    case EDataSet::SMALL_16: return "small-u16";
    }
    return "?";
}

// About `bytes` bytes (rounded down to whole cells) of the data set.
inline SSampleBuffer MakeDataSet(EDataSet set, size_t bytes, uint64_t seed = 7)
{
    std::mt19937_64 rng(seed);
    const size_t cellSize = DataSetCellSize(set);
    const size_t cells = bytes / cellSize;
    SSampleBuffer buffer{DataSetName(set), cellSize, std::vector<uint8_t>(cells * cellSize)};
    auto store = [&](size_t i, uint64_t value) {
        for (size_t b = 0; b < cellSize; ++b)
            buffer.bytes[i * cellSize + b] = uint8_t(value >> (8 * b));
    };
    // Rows of 256 cells share a Poisson mean that moves smoothly from row to row.
    auto poissonRows = [&](double low, double high, uint64_t cap) {
        for (size_t row = 0; row * 256 < cells; ++row) {
            const double phase = 0.5 + 0.5 * std::sin(double(row) * 0.07);
            std::poisson_distribution<unsigned> counts(low + (high - low) * phase);
            for (size_t i = row * 256; i < cells && i < row * 256 + 256; ++i)
                store(i, std::min<uint64_t>(counts(rng), cap));
        }
    };
    switch (set) {
    case EDataSet::TOF_SINOGRAM: poissonRows(0.05, 3.0, 0xFFFF); break;
    case EDataSet::PROMPTS: poissonRows(5.0, 40.0, 0xFFFF); break;
    case EDataSet::IMAGE_8BIT: poissonRows(0.5, 8.0, 0xFF); break;
    case EDataSet::SMALL_16: poissonRows(20.0, 200.0, 0xFF); break;
    case EDataSet::SINGLES: {
        std::normal_distribution<double> noise(0.0, 390.0);
        for (size_t i = 0; i < cells; ++i) {
            const double level = 150000.0 + 2000.0 * std::sin(double(i) * 1e-4);
            store(i, uint64_t(level + noise(rng)));
        }
        break;
    }
    case EDataSet::COUNTERS_64: {
        uint64_t counter = 0x0000012345670000ull;
        std::poisson_distribution<unsigned> step(3.0);
        for (size_t i = 0; i < cells; ++i) {
            counter += step(rng);
            store(i, counter);
        }
        break;
    }
    }
    return buffer;
}
