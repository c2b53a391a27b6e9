// Whole-buffer compression and expansion per level on the realistic data sets. Prints a Markdown
// table: compression ratio and MB/s (10^6 bytes of uncompressed data per second), median of
// several runs, every result checked against the input.
#include "OptimalBiasDulo.h"
#include "SampleData.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace {

double Median(std::vector<double> v)
{
    std::sort(v.begin(), v.end());
    return v[v.size() / 2];
}

template <typename F>
double SecondsOf(F&& work)
{
    const auto start = std::chrono::steady_clock::now();
    work();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

} // namespace

int main(int argc, char** argv)
{
    const bool quick = argc > 1 && std::strcmp(argv[1], "--quick") == 0;
    const size_t bytes = quick ? (1 << 20) : (8 << 20);
    const int runs = quick ? 3 : 7;
    std::printf("| data set | level | ratio | compress MB/s | expand MB/s |\n|---|---:|---:|---:|---:|\n");
    for (EDataSet set : ALL_DATA_SETS) {
        const SSampleBuffer sample = MakeDataSet(set, bytes);
        const size_t size = sample.bytes.size();
        for (size_t level = 0; level <= COptimalBiasDulo::MAX_COMPRESS_LEVEL; ++level) {
            std::vector<uint8_t> work = sample.bytes;
            std::vector<uint8_t> cmp;
            std::vector<uint8_t> out(size);
            size_t cmpSize = 0;
            std::vector<double> compressTimes;
            std::vector<double> expandTimes;
            for (int run = 0; run < runs; ++run) {
                COptimalBiasDulo codec; // fresh per buffer, as the filter does per chunk
                codec.SetCompressLevel(level);
                if (sample.cellSize == 2)
                    codec.SetReduceWordSize();
                cmp.resize(codec.GetWorstCaseCmpBufSize(sample.cellSize, size));
                compressTimes.push_back(SecondsOf(
                    [&] { cmpSize = codec.Compress(work.data(), size, sample.cellSize, cmp.data(), cmp.size()); }));
                COptimalBiasDulo expander;
                expander.SetInflateWordSize(sample.cellSize);
                size_t outSize = 0;
                expandTimes.push_back(
                    SecondsOf([&] { outSize = expander.Decompress(cmp.data(), cmpSize, out.data(), out.size()); }));
                if (cmpSize == 0 || outSize != size || out != sample.bytes) {
                    std::fprintf(stderr, "round trip failed: %s level %zu\n", sample.name, level);
                    return 1;
                }
            }
            std::printf("| %s | %zu | %.2f | %.0f | %.0f |\n", sample.name, level, double(size) / double(cmpSize),
                        double(size) / Median(compressTimes) / 1e6, double(size) / Median(expandTimes) / 1e6);
        }
    }
    return 0;
}
