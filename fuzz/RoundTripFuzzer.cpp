// Compression of arbitrary data with arbitrary cell size, level and word-size reduction, in two
// calls on one codec object (the bias hint carries over); each part must expand exactly.
#include "FuzzInput.h"
#include "OptimalBiasDulo.h"

#include <cstring>
#include <vector>

namespace {

void CompressAndExpand(COptimalBiasDulo& codec, const uint8_t* data, size_t size, size_t cellSize)
{
    if (size == 0)
        return;
    std::vector<uint8_t> input(data, data + size);
    const size_t bound = codec.GetWorstCaseCmpBufSize(cellSize, size);
    std::vector<uint8_t> compressed(bound);
    const size_t length = codec.Compress(input.data(), size, cellSize, compressed.data(), bound);
    FUZZ_CHECK(length <= bound);
    FUZZ_CHECK(std::memcmp(input.data(), data, size) == 0); // the input is left as it was
    FUZZ_CHECK(length != 0);

    COptimalBiasDulo expander;
    expander.SetInflateWordSize(cellSize);
    compressed.resize(length);
    std::vector<uint8_t> expanded(size);
    FUZZ_CHECK(expander.Decompress(compressed.data(), length, expanded.data(), size) == size);
    FUZZ_CHECK(expanded == input);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    CFuzzInput input(data, size);
    const uint64_t options = input.Take(2);
    static const size_t CELL_SIZES[] = {1, 2, 4, 8};
    const size_t cellSize = CELL_SIZES[options & 3];
    const size_t level = (options >> 2) % 10;
    const bool reduce = (options >> 6) & 1;
    const size_t cells = input.RestSize() / cellSize;
    const size_t firstCells = cells == 0 ? 0 : ((options >> 7) % (cells + 1));

    COptimalBiasDulo codec;
    codec.SetCompressLevel(level);
    if (reduce)
        codec.SetReduceWordSize();
    CompressAndExpand(codec, input.Rest(), firstCells * cellSize, cellSize);
    CompressAndExpand(codec, input.Rest() + firstCells * cellSize, (cells - firstCells) * cellSize, cellSize);
    return 0;
}
