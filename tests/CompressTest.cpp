// Compression of whole buffers: worst-case sizes, how the input is cut into segments, the
// failure message, and exact round trips for every cell size, level and data set.
#include "OptimalBiasDulo.h"
#include "SampleData.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

namespace {

using Bytes = std::vector<uint8_t>;

// Uncompressed sizes of the segments of a compressed buffer as their headers state them (a byte
// segment made from 16-bit cells counts its bytes, one per cell).
std::vector<size_t> SegmentSizes(const Bytes& cmp)
{
    std::vector<size_t> sizes;
    for (size_t pos = 0; pos < cmp.size();) {
        const auto hdr = COptimalBiasDulo::SegmentHeader::FromWord(LoadWord(Bytes(cmp.begin() + pos, cmp.end())));
        sizes.push_back(hdr.stdSegSize ? 4096 : size_t(cmp[pos + 4] | cmp[pos + 5] << 8));
        pos += hdr.compSegSize;
    }
    return sizes;
}

Bytes CompressBytes(COptimalBiasDulo& codec, Bytes input, size_t cellSize)
{
    Bytes out(codec.GetWorstCaseCmpBufSize(cellSize, input.size()));
    out.resize(codec.Compress(input.data(), input.size(), cellSize, out.data(), out.size()));
    return out;
}

TEST(Compress, WorstCaseSizes)
{
    COptimalBiasDulo codec;
    const size_t cases[][3] = {{2, 4096, 4104}, {1, 100, 108}, {1, 0, 2}, {8, 0, 16},
                               {8, 8, 30},      {4, 5000, 4100 + 910 + 8}, {1, 1 << 30, (1 << 18) * 4100 + 2}};
    for (const auto& c : cases)
        EXPECT_EQ(codec.GetWorstCaseCmpBufSize(c[0], c[1]), c[2]) << c[0] << " " << c[1];
}

TEST(Compress, FailuresReportOnStandardErrorAndReturnZero)
{
    struct Case
    {
        const char* name;
        size_t uncSize;
        size_t cellSize;
        size_t bufSize;
        std::string message;
    };
    const Case cases[] = {
        {"buffer one byte short", 4096, 2, 4103,
         "0 bytes, remaining: 4096 bytes, wip compressed bytes: 0 user buf size: 4103 wcbsize: 4104"},
        {"cell size 3", 4095, 3, 10000,
         "0 bytes, remaining: 4095 bytes, wip compressed bytes: 0 user buf size: 10000 wcbsize: 4107"},
        {"partial last cell", 4097, 2, 10000,
         "0 bytes, remaining: 4097 bytes, wip compressed bytes: 0 user buf size: 10000 wcbsize: 4104"},
    };
    for (const Case& c : cases) {
        COptimalBiasDulo codec;
        Bytes input(c.uncSize, 1);
        Bytes out(c.bufSize);
        CCapturedStream captured(std::cerr);
        EXPECT_EQ(codec.Compress(input.data(), input.size(), c.cellSize, out.data(), out.size()), 0u) << c.name;
        EXPECT_EQ(captured.Text(), "Error: Halting DULO after compressing " + c.message + "\n") << c.name;
    }
    COptimalBiasDulo codec;
    CCapturedStream captured(std::cerr);
    uint8_t out[8];
    EXPECT_EQ(codec.Compress(out, 0, 1, out, sizeof out), 0u);
    EXPECT_EQ(captured.Text(), "");
}

TEST(Compress, CutsTheInputIntoSegments)
{
    COptimalBiasDulo plain;
    EXPECT_EQ(SegmentSizes(CompressBytes(plain, Bytes(5000, 3), 2)), (std::vector<size_t>{4096, 904}));

    // With word-size reduction, 16-bit cells below 256 go 4096 at a time, coded as bytes; a cell
    // of 256 within the 8192 bytes ahead makes that segment 4096 bytes of 16-bit cells. The cell
    // of 256 sits first, last and just past those 8192 bytes, and among the cells of a last piece
    // that is not a whole number of 8 bytes, which are tested one by one. (Cells below 256 that
    // end up in a 4096-byte segment are coded as 2048 bytes.)
    struct Case
    {
        size_t cells;
        size_t big; // the index of the cell of 256, or none
        std::vector<size_t> sizes;
    };
    const size_t NONE = SIZE_MAX;
    const Case cases[] = {
        {10000, NONE, {4096, 4096, 1808}},     {10000, 6000, {4096, 4096, 3856}}, {10000, 0, {4096, 4096, 3856}},
        {10000, 4095, {2048, 4096, 4096, 1808}}, {10000, 4096, {4096, 4096, 3856}}, {4103, 4102, {4096, 14}},
        {4103, 4100, {4096, 14}},              {4099, NONE, {4096, 3}},           {4103, NONE, {4096, 7}},
        {3001, 3000, {2048, 1906}},            {3003, 3001, {2048, 1910}},        {3003, NONE, {3003}},
    };
    for (const Case& c : cases) {
        std::vector<uint16_t> cells(c.cells, 0x11);
        if (c.big != NONE)
            cells[c.big] = 256;
        COptimalBiasDulo reducing;
        reducing.SetReduceWordSize();
        const Bytes input(reinterpret_cast<uint8_t*>(cells.data()), reinterpret_cast<uint8_t*>(cells.data() + cells.size()));
        const Bytes cmp = CompressBytes(reducing, input, 2);
        EXPECT_EQ(SegmentSizes(cmp), c.sizes) << c.cells << " cells, 256 at " << c.big;
        COptimalBiasDulo expander;
        expander.SetInflateWordSize(2);
        Bytes out(input.size());
        EXPECT_EQ(expander.Decompress(cmp.data(), cmp.size(), out.data(), out.size()), input.size());
        EXPECT_EQ(out, input) << c.cells << " cells, 256 at " << c.big;
    }
}

TEST(Compress, NeverWritesPastASmallBufferForAnEnlargedSegment)
{
    Bytes input(8192);
    for (size_t i = 0; i < input.size(); i += 2)
        input[i] = uint8_t(i * 37);
    COptimalBiasDulo codec;
    codec.SetReduceWordSize();
    Bytes out(5000);
    CCapturedStream captured(std::cerr);
    EXPECT_EQ(codec.Compress(input.data(), input.size(), 2, out.data(), out.size()), 0u);
    EXPECT_NE(captured.Text().find("Error: Halting DULO after compressing 0 bytes"), std::string::npos);

    // The same after a first segment: the room left, not the buffer's size, must hold the worst case.
    const Bytes first(4096, 0x34);
    COptimalBiasDulo probe;
    probe.SetReduceWordSize();
    const size_t firstSize = CompressBytes(probe, first, 2).size();
    const Bytes both = Concat({first, input});
    COptimalBiasDulo second;
    second.SetReduceWordSize();
    Bytes room(firstSize + second.GetWorstCaseCmpBufSize(2, 8192) - 1);
    EXPECT_EQ(second.Compress(Bytes(both).data(), both.size(), 2, room.data(), room.size()), 0u);
    EXPECT_NE(captured.Text().find("Error: Halting DULO after compressing 4096 bytes"), std::string::npos);
}

// Compresses into a buffer of exactly the worst-case size and expands into one of exactly the
// input's size, as the filter does, so that any overrun shows under the sanitizer.
void CheckRoundTrip(const Bytes& input, size_t cellSize, size_t level, bool reduce, const std::string& what)
{
    COptimalBiasDulo codec;
    codec.SetCompressLevel(level);
    if (reduce)
        codec.SetReduceWordSize();
    Bytes work = input;
    Bytes cmp(codec.GetWorstCaseCmpBufSize(cellSize, input.size()));
    const size_t cmpSize = codec.Compress(work.data(), work.size(), cellSize, cmp.data(), cmp.size());
    ASSERT_EQ(work, input) << what << ": the input changed";
    if (input.empty()) {
        EXPECT_EQ(cmpSize, 0u);
        return;
    }
    ASSERT_GT(cmpSize, 0u) << what;
    COptimalBiasDulo expander;
    expander.SetInflateWordSize(cellSize);
    Bytes out(input.size());
    ASSERT_EQ(expander.Decompress(cmp.data(), cmpSize, out.data(), out.size()), input.size()) << what;
    EXPECT_EQ(out, input) << what;
}

TEST(CompressRoundTrip, EveryDataSetLevelAndSize)
{
    const size_t sizes[] = {0, 8, 1000, 4096, 5000, 8192, 8200, 12290, 100000};
    for (EDataSet set : ALL_DATA_SETS) {
        const SSampleBuffer sample = MakeDataSet(set, 100000);
        for (size_t level = 0; level <= 9; ++level) {
            for (bool reduce : {false, true}) {
                for (size_t size : sizes) {
                    const size_t bytes = size / sample.cellSize * sample.cellSize;
                    const Bytes input(sample.bytes.begin(), sample.bytes.begin() + bytes);
                    CheckRoundTrip(input, sample.cellSize, level, reduce,
                                   std::string(sample.name) + " level " + std::to_string(level) +
                                       (reduce ? " reduced " : " ") + std::to_string(bytes));
                }
            }
        }
    }
}

TEST(CompressRoundTrip, AwkwardShapesForEveryCellSize)
{
    for (EShape shape : ALL_SHAPES) {
        for (size_t cellSize : {1, 2, 4, 8}) {
            const Bytes input = MakeShapeBytes(shape, cellSize, 9000 / cellSize);
            for (size_t level : {0, 1, 4, 7, 8, 9, 12})
                for (bool reduce : {false, true})
                    CheckRoundTrip(input, cellSize, level, reduce,
                                   std::string(ShapeName(shape)) + " cell " + std::to_string(cellSize) + " level " +
                                       std::to_string(level));
        }
    }
}

TEST(CompressRoundTrip, SeveralMebibytes)
{
    for (EDataSet set : {EDataSet::TOF_SINOGRAM, EDataSet::SINGLES})
        for (size_t level : {0, 4, 9}) {
            const SSampleBuffer sample = MakeDataSet(set, 3 << 20);
            CheckRoundTrip(sample.bytes, sample.cellSize, level, sample.cellSize == 2,
                           std::string(sample.name) + " level " + std::to_string(level));
        }
}

} // namespace
