// Writes the seed inputs of the fuzz targets: real compressed streams and raw chunks of the
// sample data, for every cell size and several levels, each behind its target's parameter bytes.
//
//   fuzz_seeds <corpus folder>     (creates expand/, round_trip/ and filter/ in it)
#include "OptimalBiasDulo.h"
#include "SampleData.h"

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

namespace {

void Save(const std::filesystem::path& dir, const std::string& name, const std::vector<uint8_t>& header,
          const std::vector<uint8_t>& payload)
{
    std::filesystem::create_directories(dir);
    std::ofstream out(dir / name, std::ios::binary);
    out.write(reinterpret_cast<const char*>(header.data()), std::streamsize(header.size()));
    out.write(reinterpret_cast<const char*>(payload.data()), std::streamsize(payload.size()));
}

std::vector<uint8_t> Compressed(std::vector<uint8_t> raw, size_t cellSize, size_t level)
{
    COptimalBiasDulo codec;
    codec.SetCompressLevel(level);
    if (cellSize == 2)
        codec.SetReduceWordSize();
    std::vector<uint8_t> out(codec.GetWorstCaseCmpBufSize(cellSize, raw.size()));
    out.resize(codec.Compress(raw.data(), raw.size(), cellSize, out.data(), out.size()));
    return out;
}

uint8_t CellIndex(size_t cellSize)
{
    return cellSize == 1 ? 0 : cellSize == 2 ? 1 : cellSize == 4 ? 2 : 3;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s <corpus folder>\n", argv[0]);
        return 2;
    }
    const std::filesystem::path root = argv[1];
    size_t seeds = 0;
    for (EDataSet set : ALL_DATA_SETS) {
        for (size_t level : {0u, 4u, 8u, 9u}) {
            // Sizes off the 4096-byte segment grid, one of them past an enlarged 8192-byte segment.
            for (size_t bytes : {600u, 9000u}) {
                const SSampleBuffer sample = MakeDataSet(set, bytes, level + bytes);
                const size_t cellSize = sample.cellSize;
                const size_t rawSize = sample.bytes.size();
                const std::vector<uint8_t> compressed = Compressed(sample.bytes, cellSize, level);
                const std::string name = std::string(sample.name) + "-level" + std::to_string(level) + "-" +
                                         std::to_string(rawSize);
                const uint8_t cell = CellIndex(cellSize);

                Save(root / "expand", name, {cell, uint8_t(rawSize / 4), uint8_t(rawSize / 1024), uint8_t(rawSize % 4)},
                     compressed);
                Save(root / "round_trip", name, {uint8_t(cell | level << 2 | 1 << 6), 0x3F}, sample.bytes);
                const std::vector<uint8_t> cd = {1, 1, 0, 0, uint8_t(cellSize), uint8_t(level)};
                std::vector<uint8_t> header = {uint8_t(6 << 1)};
                header.insert(header.end(), cd.begin(), cd.end());
                header.push_back(uint8_t(rawSize));
                header.push_back(uint8_t(rawSize >> 8));
                Save(root / "filter", name + "-write", header, sample.bytes);
                header[0] |= 1;
                Save(root / "filter", name + "-read", header, compressed);
                seeds += 4;
            }
        }
    }
    std::printf("wrote %zu seeds into %s\n", seeds, root.string().c_str());
    return 0;
}
