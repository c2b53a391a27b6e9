// In-memory comparison with the compressors users would pick instead: every data set cut into
// 1 MiB chunks, one fresh compressor per chunk (as an HDF5 filter works), single thread. Ratio,
// compress and expand MB/s (10^6 uncompressed bytes per second), median of interleaved
// repetitions, every expansion checked against the input.
//
//   codec_comparison_bench [--quick] [--csv FILE]
#include "BenchReport.h"
#include "OptimalBiasDulo.h"
#include "SampleData.h"

#include <blosc.h>
#include <lz4.h>
#include <zlib.h>
#include <zstd.h>

#include <cstring>
#include <functional>

namespace {

constexpr size_t CHUNK_BYTES = 1 << 20;

struct SCompressor
{
    std::string name;
    std::function<size_t(size_t rawSize)> bound;
    // Each returns the bytes written, 0 on failure.
    std::function<size_t(const uint8_t* in, size_t size, uint8_t* out, size_t capacity, size_t cellSize)> compress;
    std::function<size_t(const uint8_t* in, size_t size, uint8_t* out, size_t rawSize, size_t cellSize)> expand;
};

SCompressor Mertax(size_t level)
{
    return {"mertax level " + std::to_string(level),
            [](size_t n) { return COptimalBiasDulo().GetWorstCaseCmpBufSize(8, n); },
            [level](const uint8_t* in, size_t n, uint8_t* out, size_t cap, size_t cell) {
                COptimalBiasDulo codec;
                codec.SetCompressLevel(level);
                if (cell == 2)
                    codec.SetReduceWordSize();
                return codec.Compress(const_cast<uint8_t*>(in), n, cell, out, cap);
            },
            [](const uint8_t* in, size_t n, uint8_t* out, size_t raw, size_t cell) {
                COptimalBiasDulo codec;
                codec.SetInflateWordSize(cell);
                return codec.Decompress(in, n, out, raw);
            }};
}

SCompressor Blosc(const char* compressor, int shuffle, const char* shuffleName)
{
    return {std::string("blosc ") + compressor + "+" + shuffleName,
            [](size_t n) { return n + BLOSC_MAX_OVERHEAD; },
            [=](const uint8_t* in, size_t n, uint8_t* out, size_t cap, size_t cell) {
                const int r = blosc_compress_ctx(5, shuffle, cell, n, in, out, cap, compressor, 0, 1);
                return r > 0 ? size_t(r) : 0;
            },
            [](const uint8_t* in, size_t, uint8_t* out, size_t raw, size_t) {
                const int r = blosc_decompress_ctx(in, out, raw, 1);
                return r > 0 ? size_t(r) : 0;
            }};
}

SCompressor Zstd(int level)
{
    return {"zstd " + std::to_string(level), [](size_t n) { return ZSTD_compressBound(n); },
            [level](const uint8_t* in, size_t n, uint8_t* out, size_t cap, size_t) {
                const size_t r = ZSTD_compress(out, cap, in, n, level);
                return ZSTD_isError(r) ? 0 : r;
            },
            [](const uint8_t* in, size_t n, uint8_t* out, size_t raw, size_t) {
                const size_t r = ZSTD_decompress(out, raw, in, n);
                return ZSTD_isError(r) ? 0 : r;
            }};
}

std::vector<SCompressor> Compressors()
{
    std::vector<SCompressor> list;
    list.push_back({"memcpy", [](size_t n) { return n; },
                    [](const uint8_t* in, size_t n, uint8_t* out, size_t, size_t) { return std::memcpy(out, in, n), n; },
                    [](const uint8_t* in, size_t n, uint8_t* out, size_t, size_t) { return std::memcpy(out, in, n), n; }});
    for (size_t level : {0u, 4u, 8u, 9u})
        list.push_back(Mertax(level));
    list.push_back({"lz4", [](size_t n) { return size_t(LZ4_compressBound(int(n))); },
                    [](const uint8_t* in, size_t n, uint8_t* out, size_t cap, size_t) {
                        return size_t(std::max(0, LZ4_compress_default(reinterpret_cast<const char*>(in),
                                                                       reinterpret_cast<char*>(out), int(n), int(cap))));
                    },
                    [](const uint8_t* in, size_t n, uint8_t* out, size_t raw, size_t) {
                        return size_t(std::max(0, LZ4_decompress_safe(reinterpret_cast<const char*>(in),
                                                                      reinterpret_cast<char*>(out), int(n), int(raw))));
                    }});
    list.push_back(Zstd(1));
    list.push_back(Zstd(3));
    list.push_back({"zlib 1", [](size_t n) { return size_t(compressBound(uLong(n))); },
                    [](const uint8_t* in, size_t n, uint8_t* out, size_t cap, size_t) {
                        uLongf len = uLongf(cap);
                        return compress2(out, &len, in, uLong(n), 1) == Z_OK ? size_t(len) : 0;
                    },
                    [](const uint8_t* in, size_t n, uint8_t* out, size_t raw, size_t) {
                        uLongf len = uLongf(raw);
                        return uncompress(out, &len, in, uLong(n)) == Z_OK ? size_t(len) : 0;
                    }});
    list.push_back(Blosc("lz4", BLOSC_BITSHUFFLE, "bitshuffle"));
    list.push_back(Blosc("lz4", BLOSC_SHUFFLE, "shuffle"));
    list.push_back(Blosc("zstd", BLOSC_BITSHUFFLE, "bitshuffle"));
    list.push_back(Blosc("zstd", BLOSC_SHUFFLE, "shuffle"));
    return list;
}

struct SMeasure
{
    std::vector<double> compressSeconds, expandSeconds;
    size_t compressedBytes = 0;
};

// Compresses and expands every chunk once; false when anything fails or differs.
bool RunOnce(const SCompressor& c, const SSampleBuffer& sample, std::vector<std::vector<uint8_t>>& packed,
             std::vector<uint8_t>& expanded, SMeasure& m)
{
    const size_t size = sample.bytes.size();
    const size_t chunks = (size + CHUNK_BYTES - 1) / CHUNK_BYTES;
    std::vector<size_t> lengths(chunks);
    bool ok = true;
    m.compressSeconds.push_back(SecondsOf([&] {
        for (size_t i = 0; i < chunks; ++i) {
            const size_t n = std::min(CHUNK_BYTES, size - i * CHUNK_BYTES);
            lengths[i] = c.compress(sample.bytes.data() + i * CHUNK_BYTES, n, packed[i].data(), packed[i].size(),
                                    sample.cellSize);
            ok = ok && lengths[i] != 0;
        }
    }));
    m.expandSeconds.push_back(SecondsOf([&] {
        for (size_t i = 0; i < chunks; ++i) {
            const size_t n = std::min(CHUNK_BYTES, size - i * CHUNK_BYTES);
            ok = ok && c.expand(packed[i].data(), lengths[i], expanded.data() + i * CHUNK_BYTES, n, sample.cellSize) == n;
        }
    }));
    m.compressedBytes = 0;
    for (size_t length : lengths)
        m.compressedBytes += length;
    return ok && expanded == sample.bytes;
}

} // namespace

int main(int argc, char** argv)
{
    const SBenchOptions options = ParseBenchOptions(argc, argv, 1);
    const size_t bytes = options.quick ? (4 << 20) : (16 << 20);
    const int repetitions = options.quick ? 3 : 7;
    blosc_init();

    std::printf("In memory, 1 MiB chunks, one thread, %zu MiB per data set, median of %d interleaved runs.\n%s\n\n",
                bytes >> 20, repetitions, MachineLine().c_str());
    CReportTable table({"data set", "compressor", "ratio", "compress MB/s", "expand MB/s"});
    const std::vector<SCompressor> compressors = Compressors();
    for (EDataSet set : ALL_DATA_SETS) {
        const SSampleBuffer sample = MakeDataSet(set, bytes);
        std::vector<SMeasure> measures(compressors.size());
        std::vector<uint8_t> expanded(sample.bytes.size());
        const bool ok = RunInterleaved(repetitions, compressors, sample.name, [&](size_t c) {
            std::vector<std::vector<uint8_t>> packed((sample.bytes.size() + CHUNK_BYTES - 1) / CHUNK_BYTES,
                                                     std::vector<uint8_t>(compressors[c].bound(CHUNK_BYTES)));
            std::fill(expanded.begin(), expanded.end(), 0);
            return RunOnce(compressors[c], sample, packed, expanded, measures[c]);
        });
        if (!ok)
            return 1;
        const double raw = double(sample.bytes.size());
        for (size_t c = 0; c < compressors.size(); ++c)
            AddMeasuredRow(table, sample.name, compressors[c].name, raw, double(measures[c].compressedBytes),
                           measures[c].compressSeconds, measures[c].expandSeconds);
    }
    blosc_destroy();
    return PublishTable(table, options.csvPath);
}
