// Segment encode and decode speed on the sample data shapes, one 4096-byte segment at a time.
// Reports bytes/s of uncompressed data and the compression ratio.
#include "CodecTestPeer.h"
#include "SampleData.h"

#include <benchmark/benchmark.h>

#include <algorithm>

namespace {

constexpr size_t SEGMENT_BYTES = 4096;

// The bias the histogram search tends to pick for these shapes: the median cell.
template <typename T>
T MedianBias(std::vector<T> cells)
{
    std::nth_element(cells.begin(), cells.begin() + cells.size() / 2, cells.end());
    return cells[cells.size() / 2];
}

template <typename T>
void EncodeSegment(benchmark::State& state)
{
    const EShape shape = ALL_SHAPES[state.range(0)];
    const std::vector<T> cells = MakeShape<T>(shape, SEGMENT_BYTES / sizeof(T));
    const T bias = MedianBias(cells);
    COptimalBiasDulo codec;
    std::vector<T> work = cells;
    size_t compressed = 0;
    for (auto _ : state) {
        compressed = COptimalBiasDuloTestPeer::Deflate<T>(codec, work, T(0), bias).size();
        benchmark::DoNotOptimize(compressed);
    }
    state.SetBytesProcessed(int64_t(state.iterations() * SEGMENT_BYTES));
    state.counters["ratio"] = double(SEGMENT_BYTES) / double(compressed);
    state.SetLabel(ShapeName(shape));
}

template <typename T>
void DecodeSegment(benchmark::State& state)
{
    const EShape shape = ALL_SHAPES[state.range(0)];
    std::vector<T> cells = MakeShape<T>(shape, SEGMENT_BYTES / sizeof(T));
    const T bias = MedianBias(cells);
    COptimalBiasDulo codec;
    const std::vector<uint8_t> segment = COptimalBiasDuloTestPeer::Deflate<T>(codec, cells, T(0), bias);
    std::vector<uint8_t> out(SEGMENT_BYTES);
    for (auto _ : state) {
        benchmark::DoNotOptimize(codec.Decompress(segment.data(), segment.size(), out.data(), out.size()));
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(int64_t(state.iterations() * SEGMENT_BYTES));
    state.counters["ratio"] = double(SEGMENT_BYTES) / double(segment.size());
    state.SetLabel(ShapeName(shape));
}

constexpr int SHAPE_COUNT = int(sizeof ALL_SHAPES / sizeof ALL_SHAPES[0]);

BENCHMARK_TEMPLATE(EncodeSegment, uint8_t)->DenseRange(0, SHAPE_COUNT - 1);
BENCHMARK_TEMPLATE(EncodeSegment, uint16_t)->DenseRange(0, SHAPE_COUNT - 1);
BENCHMARK_TEMPLATE(EncodeSegment, uint32_t)->DenseRange(0, SHAPE_COUNT - 1);
BENCHMARK_TEMPLATE(EncodeSegment, uint64_t)->DenseRange(0, SHAPE_COUNT - 1);
BENCHMARK_TEMPLATE(DecodeSegment, uint8_t)->DenseRange(0, SHAPE_COUNT - 1);
BENCHMARK_TEMPLATE(DecodeSegment, uint16_t)->DenseRange(0, SHAPE_COUNT - 1);
BENCHMARK_TEMPLATE(DecodeSegment, uint32_t)->DenseRange(0, SHAPE_COUNT - 1);
BENCHMARK_TEMPLATE(DecodeSegment, uint64_t)->DenseRange(0, SHAPE_COUNT - 1);

} // namespace

BENCHMARK_MAIN();
