// The kernel sets against each other: level-4 compression and expansion of 1 MiB of each data set,
// one thread, the sets taking turns run by run so that the machine's drift hits them alike.
// Prints MB/s and each set's speed relative to the portable one.
//
//     kernel_set_bench [--quick] [--set NAME [DATA SET]]
//
// `--set NAME` runs that set alone, one round trip per data set (or of the one named): for
// instruction counts under callgrind (which runs neither AVX-512 nor the timing loop usefully).
#include "KernelDispatch.h"
#include "OptimalBiasDulo.h"
#include "SampleData.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

namespace {

constexpr size_t LEVEL = 4;

struct SRoundTrip
{
    std::vector<uint8_t> input; // a copy: compression may work in its input's place
    std::vector<uint8_t> compressed;
    std::vector<uint8_t> expanded;
};

double Median(std::vector<double> v)
{
    std::sort(v.begin(), v.end());
    return v[v.size() / 2];
}

// One compression and one expansion; their times in seconds, or false if the data did not come
// back.
bool TimeRoundTrip(const SSampleBuffer& sample, SRoundTrip& work, double& compressSeconds, double& expandSeconds)
{
    using Clock = std::chrono::steady_clock;
    COptimalBiasDulo codec;
    codec.SetCompressLevel(LEVEL);
    if (sample.cellSize == 2)
        codec.SetReduceWordSize();
    work.input = sample.bytes;
    work.compressed.resize(codec.GetWorstCaseCmpBufSize(sample.cellSize, sample.bytes.size()));
    const auto start = Clock::now();
    const size_t size = codec.Compress(work.input.data(), sample.bytes.size(), sample.cellSize,
                                       work.compressed.data(), work.compressed.size());
    const auto compressed = Clock::now();
    COptimalBiasDulo expander;
    expander.SetInflateWordSize(sample.cellSize);
    work.expanded.assign(sample.bytes.size(), 0);
    const size_t out = expander.Decompress(work.compressed.data(), size, work.expanded.data(), work.expanded.size());
    const auto expanded = Clock::now();
    compressSeconds = std::chrono::duration<double>(compressed - start).count();
    expandSeconds = std::chrono::duration<double>(expanded - compressed).count();
    return size != 0 && out == sample.bytes.size() && work.expanded == sample.bytes;
}

int RunOneSet(const std::string& name, const std::string& only)
{
    for (EKernelSet set : SupportedKernelSets()) {
        if (name != KernelsOf(set).name)
            continue;
        UseKernelSet(set);
        for (EDataSet data : ALL_DATA_SETS) {
            const SSampleBuffer sample = MakeDataSet(data, 1 << 20);
            if (!only.empty() && only != sample.name)
                continue;
            SRoundTrip work;
            double compress = 0;
            double expand = 0;
            if (!TimeRoundTrip(sample, work, compress, expand)) {
                std::fprintf(stderr, "round trip failed: %s\n", sample.name);
                return 1;
            }
        }
        return 0;
    }
    std::fprintf(stderr, "kernel set %s: not run by this processor\n", name.c_str());
    return 2;
}

} // namespace

int main(int argc, char** argv)
{
    bool quick = false;
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--quick") == 0)
            quick = true;
        else if (std::strcmp(argv[i], "--set") == 0 && i + 1 < argc)
            return RunOneSet(argv[i + 1], i + 2 < argc ? argv[i + 2] : "");
    }
    const int runs = quick ? 5 : 31;
    const std::vector<EKernelSet>& sets = SupportedKernelSets();
    std::printf("| data set | kernel set | compress MB/s | expand MB/s | compress vs portable | expand vs portable |\n"
                "|---|---|---:|---:|---:|---:|\n");
    for (EDataSet data : ALL_DATA_SETS) {
        const SSampleBuffer sample = MakeDataSet(data, 1 << 20);
        std::vector<std::vector<double>> compress(sets.size());
        std::vector<std::vector<double>> expand(sets.size());
        SRoundTrip work;
        for (int run = 0; run < runs; ++run) {
            for (size_t k = 0; k < sets.size(); ++k) {
                UseKernelSet(sets[k]);
                double c = 0;
                double e = 0;
                if (!TimeRoundTrip(sample, work, c, e)) {
                    std::fprintf(stderr, "round trip failed: %s with the %s kernels\n", sample.name,
                                 KernelsOf(sets[k]).name);
                    return 1;
                }
                compress[k].push_back(c);
                expand[k].push_back(e);
            }
        }
        const double megabytes = double(sample.bytes.size()) / 1e6;
        for (size_t k = 0; k < sets.size(); ++k) {
            const double c = megabytes / Median(compress[k]);
            const double e = megabytes / Median(expand[k]);
            std::printf("| %s | %s | %.0f | %.0f | %.2fx | %.2fx |\n", sample.name, KernelsOf(sets[k]).name, c, e,
                        Median(compress[0]) / Median(compress[k]), Median(expand[0]) / Median(expand[k]));
        }
    }
    UseKernelSet(sets.back());
    return 0;
}
