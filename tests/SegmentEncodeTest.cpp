// The segment encoder's exact output: every byte of a segment is persisted, including the
// closing nibbles and trailing map entries that no decoder reads.
#include "CodecTestPeer.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

namespace {

using Bytes = std::vector<uint8_t>;

template <typename T>
Bytes Encode(std::vector<T> cells, T segmin, T bias, COptimalBiasDulo codec = COptimalBiasDulo())
{
    return COptimalBiasDuloTestPeer::Deflate<T>(codec, cells, segmin, bias);
}

template <typename T>
std::vector<T> Repeated(std::initializer_list<std::pair<size_t, T>> runs)
{
    std::vector<T> cells;
    for (const auto& run : runs)
        cells.insert(cells.end(), run.first, run.second);
    return cells;
}

// Expands a segment of 16-bit cells, widening it if it was coded as bytes.
std::vector<uint16_t> ExpandShorts(const Bytes& seg, size_t cells)
{
    COptimalBiasDulo decoder;
    decoder.SetInflateWordSize(2);
    std::vector<uint8_t> out(2 * cells);
    out.resize(decoder.Decompress(seg.data(), seg.size(), out.data(), out.size()));
    return ToCells<uint16_t>(out);
}

TEST(SegmentEncode, GoldenSegments)
{
    struct Case
    {
        const char* name;
        Bytes actual;
        Bytes expected;
    };
    std::vector<uint16_t> nearlyAll1234(2048, 0x1234);
    nearlyAll1234.back() = 0x1235;
    const Case cases[] = {
        {"attempt longer than stored: stored, with the attempt's nonMatchLength",
         Encode<uint8_t>({0x12, 0x12, 0x13, 0x12}, 0, 0x12),
         {0x10, 0x01, 0x60, 0x00, 0x04, 0x00, 0x12, 0x12, 0x13, 0x12, 0x00, 0x00}},
        {"long run over three plane boundaries, then the group remainder byte",
         Encode<uint16_t>(nearlyAll1234, 0, 0x1234),
         {0x17, 0x01, 0x60, 0x00, 0x34, 0x12, 0x54, 0x50, 0xFF, 0x9F, 0x00, 0x00}},
        {"skipped plane at a non-match element 0, group, escape run",
         Encode<uint8_t>({0x05, 0x05, 0x05, 0x05, 0x05, 0x00, 0x07, 0x00}, 0, 0),
         {0x82, 0x01, 0x60, 0x00, 0x08, 0x00, 0x50, 0x57, 0x50, 0x88, 0x02, 0x81}},
        {"all equal to the bias: one run code, closing byte only",
         Encode<uint8_t>(std::vector<uint8_t>(4096, 0xA7), 0, 0xA7),
         {0x93, 0x00, 0x40, 0x00, 0xA7, 0x00, 0xFF, 0xA0}},
        {"one element differing in its low nibble",
         Encode<uint64_t>({0x9}, 0, 0),
         {0x0E, 0x01, 0x60, 0x00, 0x08, 0x00, 0x90, 0x90, 0x8F, 0x00, 0x00, 0x00}},
        {"run of exactly the escape (5), and a tie that keeps the compressed form",
         Encode<uint8_t>(std::vector<uint8_t>(5, 0x03), 0, 0x05),
         {0x12, 0x01, 0x60, 0x00, 0x05, 0x00, 0x05, 0x33, 0x54, 0x85, 0x00, 0x00}},
        {"run of exactly the escape (3): three literals",
         Encode<uint64_t>({1, 1, 1}, 0, 3),
         {0x9E, 0x01, 0xA0, 0x00, 0x18, 0x00, 0x03, 0, 0, 0, 0, 0, 0, 0, 0x11, 0x13, 0x10, 0xAD, 0x00, 0x00}},
        {"run of 300: 255 in the byte form, then a fresh literal; held-back all-zero groups",
         Encode<uint8_t>(std::vector<uint8_t>(300, 0x07), 0, 0),
         {0x02, 0x03, 0xA0, 0x00, 0x2C, 0x01, 0x70, 0x0F, 0xF7, 0x00, 0x2D, 0x20,
          0xE0, 0xCC, 0x7F, 0x7F, 0x7F, 0x7F, 0x6A, 0x00}},
        {"pending data nibble equal to the closing nibble is kept",
         Encode<uint8_t>({0x10, 0x10, 0x10, 0x10, 0x10, 0x10, 0x10, 0x00}, 0, 0x10),
         {0x92, 0x00, 0x60, 0x00, 0x08, 0x00, 0x10, 0x00, 0x87, 0x88, 0x00, 0x00}},
        {"run of five matches: the complete group 0x3E, nothing after it",
         Encode<uint8_t>({1, 0, 0, 0, 0, 0, 1}, 0, 0),
         {0x02, 0x01, 0x60, 0x00, 0x07, 0x00, 0x11, 0x10, 0x87, 0x3E, 0x00, 0x00}},
        {"runs of one and two matches fold into groups",
         Encode<uint8_t>({1, 0, 1, 0, 0, 1, 0, 0, 0, 1, 0, 0, 0, 0, 1}, 0, 0),
         {0x82, 0x01, 0x80, 0x00, 0x0F, 0x00, 0x10, 0x50, 0x50, 0x8F, 0x2D, 0x37, 0x20, 0x00, 0x00, 0x00}},
        {"run of three folds",
         Encode<uint8_t>({1, 0, 0, 0, 1}, 0, 0),
         {0x02, 0x01, 0x60, 0x00, 0x05, 0x00, 0x11, 0x10, 0x85, 0x38, 0x00, 0x00}},
        {"run of four folds",
         Encode<uint8_t>({1, 0, 0, 0, 0, 1}, 0, 0),
         {0x02, 0x01, 0x60, 0x00, 0x06, 0x00, 0x11, 0x10, 0x86, 0x3C, 0x00, 0x00}},
        {"medium run codes leave remainders",
         Encode<uint8_t>(Repeated<uint8_t>({{1, 1}, {70, 0}, {1, 1}}), 0, 0),
         {0x02, 0x01, 0x60, 0x00, 0x48, 0x00, 0x11, 0x10, 0xC8, 0xC6, 0x00, 0x00}},
        {"a run of exactly 64 leaves no remainder",
         Encode<uint8_t>(Repeated<uint8_t>({{1, 1}, {64, 0}, {1, 1}}), 0, 0),
         {0x02, 0x01, 0x60, 0x00, 0x42, 0x00, 0x11, 0x10, 0xC2, 0xC0, 0x00, 0x00}},
    };
    for (const Case& c : cases)
        EXPECT_EQ(c.actual, c.expected) << c.name;
}

TEST(SegmentEncode, SizeLimitDependsOnWordSizeReduction)
{
    struct Case
    {
        bool reduce;
        size_t cells;
        bool accepted;
    };
    const Case cases[] = {{false, 2048, true}, {false, 2049, false}, {true, 4096, true}, {true, 4097, false}};
    for (const Case& c : cases) {
        COptimalBiasDulo codec;
        if (c.reduce)
            codec.SetReduceWordSize();
        CCapturedStream captured(std::cout);
        const Bytes seg = Encode<uint16_t>(std::vector<uint16_t>(c.cells, 7), 0, 0, codec);
        EXPECT_EQ(!seg.empty(), c.accepted) << c.cells;
        const std::string message =
            "Uncompressed segment size of " + std::to_string(2 * c.cells) + " greater than max 4096\n";
        EXPECT_EQ(captured.Text(), c.accepted ? "" : message) << c.cells;
    }
}

TEST(SegmentEncode, EightKiloByteShortSegmentsReduceOnlyWithAByteBias)
{
    std::vector<uint16_t> cells(4096);
    for (size_t i = 0; i < cells.size(); ++i)
        cells[i] = uint16_t(0x10 + i % 7);
    COptimalBiasDulo codec;
    codec.SetReduceWordSize();

    const Bytes reduced = Encode<uint16_t>(cells, 0, 0x0012, codec);
    const auto reducedHdr = COptimalBiasDulo::SegmentHeader::FromWord(LoadWord(reduced));
    EXPECT_EQ(reducedHdr.byteMode, COptimalBiasDulo::BYTE_MODE);
    EXPECT_EQ(reducedHdr.stdSegSize, 1u);
    EXPECT_EQ(reduced[4], 0x12); // one-byte bias field right after the header word

    const Bytes unreduced = Encode<uint16_t>(cells, 0, 0x0112, codec);
    const auto unreducedHdr = COptimalBiasDulo::SegmentHeader::FromWord(LoadWord(unreduced));
    EXPECT_EQ(unreducedHdr.byteMode, COptimalBiasDulo::SHORT_MODE);
    EXPECT_EQ(unreducedHdr.stdSegSize, 0u);
    EXPECT_EQ(unreduced[4] | unreduced[5] << 8, 8192);

    EXPECT_EQ(ExpandShorts(reduced, cells.size()), cells);
    EXPECT_EQ(ExpandShorts(unreduced, cells.size()), cells);
}

TEST(SegmentEncode, OversizedShortSegmentThatWouldOverflowItsHeaderIsCodedAsBytes)
{
    // Nibbles never equal to the hint's (1 and 2 in the low byte) and never repeated: with the
    // hint 0x0112 the non-match stream would exceed the 12-bit length field.
    const uint8_t pattern[] = {0x03, 0x34, 0x45, 0x56, 0x67, 0x78, 0x89, 0x9A, 0xAB, 0xBC, 0xCD, 0xDE, 0xE3};
    std::vector<uint16_t> cells(4096);
    for (size_t i = 0; i < cells.size(); ++i)
        cells[i] = pattern[i % sizeof pattern];
    COptimalBiasDulo codec;
    codec.SetReduceWordSize();
    const Bytes seg = Encode<uint16_t>(cells, 0, 0x0112, codec);
    const auto hdr = COptimalBiasDulo::SegmentHeader::FromWord(LoadWord(seg));
    EXPECT_EQ(hdr.byteMode, COptimalBiasDulo::BYTE_MODE);
    EXPECT_EQ(hdr.compSegSize, seg.size());
    EXPECT_EQ(ExpandShorts(seg, cells.size()), cells);
}

TEST(SegmentEncode, StoredFallbackRestoresSegminInTheCallersCells)
{
    std::vector<uint8_t> original(64);
    for (size_t i = 0; i < original.size(); ++i)
        original[i] = uint8_t(100 + (i * 37) % 150);
    std::vector<uint8_t> reduced = original;
    for (uint8_t& c : reduced)
        c = uint8_t(c - 100);
    COptimalBiasDulo codec;
    const Bytes seg = COptimalBiasDuloTestPeer::Deflate<uint8_t>(codec, reduced, 100, 0);
    EXPECT_EQ(reduced, original);
    EXPECT_EQ(seg[0] & 0x02, 0); // stored
    EXPECT_EQ(Bytes(seg.begin() + 6, seg.begin() + 70), original);
}

} // namespace
