// The golden compressed files pin the codec's output: each expands to its cells, and those cells
// compress again to exactly the file's bytes, on every kernel set this processor runs.
#include "GoldenCase.h"
#include "KernelDispatch.h"
#include "OptimalBiasDulo.h"

#include <gtest/gtest.h>

#include <fstream>
#include <iterator>

namespace {

std::vector<uint8_t> ReadFile(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    return std::vector<uint8_t>(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

TEST(GoldenFiles, ExpandAndCompressToTheSameBytesOnEveryKernelSet)
{
    const EKernelSet initial = SupportedKernelSets().back();
    for (EKernelSet set : SupportedKernelSets()) {
        ASSERT_TRUE(UseKernelSet(set));
        for (const SGoldenCase& c : GoldenCases()) {
            SCOPED_TRACE(c.FileName() + " with the " + KernelsOf(set).name + " kernels");
            const std::vector<uint8_t> golden = ReadFile(std::string(MERTAX_GOLDEN_DIR "/") + c.FileName());
            ASSERT_FALSE(golden.empty());

            COptimalBiasDulo expander;
            expander.SetInflateWordSize(c.cellBytes);
            std::vector<uint8_t> cells(c.bytes);
            ASSERT_EQ(expander.Decompress(golden.data(), golden.size(), cells.data(), cells.size()), c.bytes);
            EXPECT_EQ(cells, MakeShapeBytes(c.shape, c.cellBytes, c.bytes / c.cellBytes));

            COptimalBiasDulo codec;
            codec.SetCompressLevel(c.level);
            if (c.reduce)
                codec.SetReduceWordSize();
            std::vector<uint8_t> out(codec.GetWorstCaseCmpBufSize(c.cellBytes, cells.size()));
            out.resize(codec.Compress(cells.data(), cells.size(), c.cellBytes, out.data(), out.size()));
            EXPECT_EQ(out, golden);
        }
    }
    UseKernelSet(initial);
}

} // namespace
