// Writes the golden compressed files that the tests pin the codec's output with: each cell size at
// levels 0, 4, 8 and 9 on three shapes of 9000 bytes (two full segments and a short one), 16-bit
// cells with word-size reduction on ("reduced") and off ("plain"); and levels 1 to 7, whose bias
// hint carries from segment to segment, on 61440 bytes. Run only when the output is
// meant to change:
//   ./build/tests/make_golden_files tests/golden
#include "GoldenCase.h"
#include "OptimalBiasDulo.h"
#include "SampleData.h"

#include <cstdio>
#include <fstream>

int main(int argc, char** argv)
{
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s FOLDER\n", argv[0]);
        return 2;
    }
    for (const SGoldenCase& c : GoldenCases()) {
        const std::vector<uint8_t> cells = MakeShapeBytes(c.shape, c.cellBytes, c.bytes / c.cellBytes);
        COptimalBiasDulo codec;
        codec.SetCompressLevel(c.level);
        if (c.reduce)
            codec.SetReduceWordSize();
        std::vector<uint8_t> out(codec.GetWorstCaseCmpBufSize(c.cellBytes, cells.size()));
        std::vector<uint8_t> input = cells;
        out.resize(codec.Compress(input.data(), input.size(), c.cellBytes, out.data(), out.size()));
        std::ofstream(std::string(argv[1]) + "/" + c.FileName(), std::ios::binary)
            .write(reinterpret_cast<const char*>(out.data()), std::streamsize(out.size()));
    }
    return 0;
}
