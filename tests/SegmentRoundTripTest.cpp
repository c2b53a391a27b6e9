// Every segment the encoder writes expands to the cells it was given, for every cell type, data
// shape, segment length (including lengths that are not a multiple of 8 bytes) and choice of
// segmin and bias.
#include "CodecTestPeer.h"
#include "SampleData.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace {

template <typename T>
void CheckRoundTrip(const std::vector<T>& cells, T segmin, T bias, bool reduceWordSize, const std::string& what)
{
    COptimalBiasDulo codec;
    if (reduceWordSize)
        codec.SetReduceWordSize();
    std::vector<T> reduced(cells);
    for (T& c : reduced)
        c = T(c - segmin);
    const std::vector<uint8_t> seg = COptimalBiasDuloTestPeer::Deflate<T>(codec, reduced, segmin, bias);
    ASSERT_FALSE(seg.empty()) << what;
    ASSERT_EQ(seg.size() % 4, 0u) << what;
    const size_t segSize = cells.size() * sizeof(T);
    const size_t storedLength = 4 + (segSize == 4096 ? 0 : 2) + segSize;
    EXPECT_LE(seg.size(), (storedLength + 3) / 4 * 4) << what;

    COptimalBiasDulo decoder;
    decoder.SetInflateWordSize(sizeof(T));
    std::vector<uint8_t> out(segSize);
    ASSERT_EQ(decoder.Decompress(seg.data(), seg.size(), out.data(), out.size()), segSize) << what;
    EXPECT_EQ(ToCells<T>(out), cells) << what;
}

template <typename T>
void CheckAllShapes(bool reduceWordSize)
{
    const size_t counts[] = {1, 3, 5, 13, 100, 511, 4096 / sizeof(T)};
    uint64_t seed = 1;
    for (EShape shape : ALL_SHAPES) {
        for (size_t count : counts) {
            std::vector<T> cells = MakeShape<T>(shape, count, seed++);
            if (reduceWordSize)
                for (T& c : cells)
                    c = T(c & 0xFF);
            const T lowest = *std::min_element(cells.begin(), cells.end());
            const T biases[] = {T(0), cells[count / 2], T(~T(0)), T(0x5A5A5A5A5A5A5A5Aull)};
            for (T bias : biases) {
                for (T segmin : {T(0), lowest}) {
                    const std::string what = std::string(ShapeName(shape)) + " x" + std::to_string(count) +
                                             " bias " + std::to_string(uint64_t(bias)) + " segmin " +
                                             std::to_string(uint64_t(segmin));
                    CheckRoundTrip<T>(cells, segmin, T(bias), reduceWordSize, what);
                }
            }
        }
    }
}

TEST(SegmentRoundTrip, Bytes) { CheckAllShapes<uint8_t>(false); }
TEST(SegmentRoundTrip, Shorts) { CheckAllShapes<uint16_t>(false); }
TEST(SegmentRoundTrip, ShortsWithWordSizeReduction) { CheckAllShapes<uint16_t>(true); }
TEST(SegmentRoundTrip, Words) { CheckAllShapes<uint32_t>(false); }
TEST(SegmentRoundTrip, LongWords) { CheckAllShapes<uint64_t>(false); }

TEST(SegmentRoundTrip, EnlargedShortSegmentsUnderWordSizeReduction)
{
    for (EShape shape : ALL_SHAPES) {
        for (size_t count : {2049, 3001, 4096}) {
            std::vector<uint16_t> cells = MakeShape<uint16_t>(shape, count, count);
            for (uint16_t& c : cells)
                c = uint16_t(c & 0xFF);
            for (uint16_t bias : {0x0000, 0x0012, 0x0112, 0xFFFF})
                CheckRoundTrip<uint16_t>(cells, 0, bias, true,
                                         std::string(ShapeName(shape)) + " bias " + std::to_string(bias));
        }
    }
}

} // namespace
