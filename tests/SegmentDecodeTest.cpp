// Expansion of single segments: the documented example segments and hand-built segments that
// exercise each map entry kind, the escape forms of the nibble stream and plane crossings.
#include "OptimalBiasDulo.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

#include <random>

namespace {

// Expands `cmp` into a buffer of exactly `capacity` bytes and returns what came out.
std::vector<uint8_t> Expand(const std::vector<uint8_t>& cmp, size_t capacity, size_t inflateWordSize = 0)
{
    COptimalBiasDulo codec;
    codec.SetInflateWordSize(inflateWordSize);
    std::vector<uint8_t> out(capacity);
    out.resize(codec.Decompress(cmp.data(), cmp.size(), out.data(), out.size()));
    return out;
}

TEST(SegmentDecode, DocumentedExampleSegments)
{
    struct Case
    {
        const char* name;
        std::vector<uint8_t> segment;
        std::vector<uint8_t> expected;
    };
    const Case cases[] = {
        {"bias 0x12, one non-match",
         {0x92, 0x00, 0x60, 0x00, 0x04, 0x00, 0x12, 0x30, 0x86, 0x81, 0xEE, 0xEE},
         {0x12, 0x12, 0x13, 0x12}},
        {"same values stored",
         {0x90, 0x00, 0x60, 0x00, 0x04, 0x00, 0x12, 0x12, 0x13, 0x12, 0xEE, 0xEE},
         {0x12, 0x12, 0x13, 0x12}},
        {"run of five through the escape",
         {0x02, 0x01, 0x60, 0x00, 0x08, 0x00, 0x50, 0x57, 0x88, 0x44, 0x28, 0xEE},
         {0x05, 0x05, 0x05, 0x05, 0x05, 0x00, 0x07, 0x00}},
        {"encoder's stored form of 12 12 13 12",
         {0x10, 0x01, 0x60, 0x00, 0x04, 0x00, 0x12, 0x12, 0x13, 0x12, 0x00, 0x00},
         {0x12, 0x12, 0x13, 0x12}},
        // Streams one nibble short of what the last non-match needs: it comes from the map's
        // first byte, which follows the stream inside the segment.
        {"last nibble from the map, same value",
         {0x92, 0x00, 0x60, 0x00, 0x08, 0x00, 0x30, 0x00, 0x0f, 0x2f, 0x84, 0x00},
         {0x00, 0x00, 0x30, 0x30, 0x30, 0x30, 0x30, 0x00}},
        {"last nibble from the map, another value",
         {0x12, 0x00, 0x60, 0x00, 0x08, 0x00, 0x10, 0x87, 0x88, 0x00, 0x00, 0x00},
         {0x10, 0x10, 0x10, 0x10, 0x10, 0x10, 0x10, 0x80}},
    };
    for (const Case& c : cases)
        EXPECT_EQ(Expand(c.segment, 64), c.expected) << c.name;
}

TEST(SegmentDecode, LongMatchSkipAcrossThreePlanesOfShortSegment)
{
    std::vector<uint16_t> expected(2048, 0x1234);
    expected.back() = 0x1235;
    const std::vector<std::vector<uint8_t>> segments = {
        {0x97, 0x00, 0x60, 0x00, 0x34, 0x12, 0x50, 0xFF, 0x9F, 0xEE, 0xEE, 0xEE},
        {0x17, 0x01, 0x60, 0x00, 0x34, 0x12, 0x54, 0x50, 0xFF, 0x9F, 0x00, 0x00},
    };
    for (const auto& seg : segments)
        EXPECT_EQ(ToCells<uint16_t>(Expand(seg, 4096)), expected);
}

TEST(SegmentDecode, AllMatchingStandardSegmentEndsOnLongSkip)
{
    SegmentFields f;
    f.standard = true;
    f.hasBias = true;
    f.bias = 0xA7;
    f.map = {0xFF, 0xFF};
    EXPECT_EQ(Expand(BuildCompressedSegment(f), 4096), std::vector<uint8_t>(4096, 0xA7));
}

TEST(SegmentDecode, EveryMapEntryKind)
{
    // 100 bytes, bias 0: plane 0 holds the high nibbles, plane 1 the low ones.
    SegmentFields f;
    f.segSize = 100;
    f.stream = {0xAB, 0x03, 0x12, 0x37};
    f.map = {
        0xC2,       // 66 matches, then element 66 of plane 0: literal A
        0x43,       // elements 67..69: literal B, escape 0 with run 3
        0x40,       // covers no slot
        0x2A,       // 70 match, 71 literal 1, 72 match, 73 literal 2, 74 match, 75 literal 3
        0xE0, 0x10, // 112 matches: 76..99 of plane 0, 0..87 of plane 1; element 88 literal 7
        0x8B,       // 11 matches reach the last slot: the segment ends
    };
    std::vector<uint8_t> expected(100, 0);
    expected[66] = 0xA0;
    expected[67] = expected[68] = expected[69] = 0xB0;
    expected[71] = 0x10;
    expected[73] = 0x20;
    expected[75] = 0x30;
    expected[88] = 0x07;
    EXPECT_EQ(Expand(BuildCompressedSegment(f), 100), expected);
}

TEST(SegmentDecode, EscapesInBothHalvesAndRunsIntoNextPlane)
{
    // Bias 0x53: escape 5 in plane 0, escape 3 in plane 1. Stream nibbles:
    //   1 | 2 5 4 (escape in a high half, run 4) | 3 5 3 (escape in a low half, run 3)
    //   6 5 5 1 4 (high half, byte form, run 0x14) | 7 5 5 0 A (low half, byte form, run 0x0A)
    //   8 5 4 (run 4: the last two repeats fall on plane 1) | 5 (a literal in plane 1) 3 2
    SegmentFields f;
    f.segSize = 40;
    f.hasBias = true;
    f.bias = 0x53;
    f.stream = {0x12, 0x54, 0x35, 0x36, 0x55, 0x14, 0x75, 0x50, 0xA8, 0x54, 0x53, 0x20};
    f.map = {0x68, 0x44, 0xA4};
    std::vector<uint8_t> expected(40);
    const uint8_t high[40] = {1, 2, 2, 2, 2, 3, 3, 3, 6, 6, 6, 6, 6, 6, 6, 6, 6, 6, 6, 6,
                              6, 6, 6, 6, 6, 6, 6, 6, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 8, 8};
    for (size_t i = 0; i < 40; ++i)
        expected[i] = uint8_t(high[i] << 4 | 0x3);
    expected[0] = 0x18;
    expected[1] = 0x28;
    expected[2] = 0x25;
    expected[3] = 0x25;
    EXPECT_EQ(Expand(BuildCompressedSegment(f), 40), expected);
}

TEST(SegmentDecode, BitMaskStraddlesPlanesAndSegminIsAddedBack)
{
    SegmentFields f;
    f.byteMode = COptimalBiasDulo::SHORT_MODE;
    f.segSize = 6;
    f.hasSegmin = true;
    f.segmin = 0x1000;
    f.hasBias = true;
    f.bias = 0;
    f.stream = {0x94};
    f.map = {0x3F, 0x2D}; // planes 0-1 match; plane 2: M N M; plane 3: M N M
    EXPECT_EQ(ToCells<uint16_t>(Expand(BuildCompressedSegment(f), 6)),
              (std::vector<uint16_t>{0x1000, 0x1094, 0x1000}));
}

TEST(SegmentDecode, AlgVersionTwoOrThreeWithoutSubaddHasNoBiasField)
{
    for (int algVersion : {2, 3}) {
        SegmentFields f;
        f.segSize = 2;
        f.algVersion = algVersion;
        f.stream = {0x70};
        f.map = {0x3B}; // three matches, then the last slot: literal 7
        EXPECT_EQ(Expand(BuildCompressedSegment(f), 2), (std::vector<uint8_t>{0x00, 0x07})) << algVersion;
    }
}

TEST(SegmentDecode, WideCellTypes)
{
    SegmentFields f64;
    f64.byteMode = COptimalBiasDulo::U64B_MODE;
    f64.segSize = 32;
    f64.hasBias = true;
    f64.bias = 0x0123456789ABCDEF;
    f64.stream = {0x00};
    f64.map = {0xBF}; // 63 matches over 16 planes, then the last slot: literal 0
    std::vector<uint64_t> expected64(4, 0x0123456789ABCDEF);
    expected64[3] = 0x0123456789ABCDE0;
    EXPECT_EQ(ToCells<uint64_t>(Expand(BuildCompressedSegment(f64), 32)), expected64);

    SegmentFields f32;
    f32.byteMode = COptimalBiasDulo::U32B_MODE;
    f32.segSize = 32;
    f32.hasSegmin = true;
    f32.segmin = 0x30000000;
    f32.hasBias = true;
    f32.bias = 0xDEADBEEF;
    f32.map = {0xC0}; // exactly the 64 slots: ends without a non-match
    EXPECT_EQ(ToCells<uint32_t>(Expand(BuildCompressedSegment(f32), 32)),
              std::vector<uint32_t>(8, 0x0EADBEEF)); // the addition wraps in 32 bits
}

TEST(SegmentDecode, SegminWrapsInTheSegmentsOwnWidthAlsoWhenWidened)
{
    // 100 bytes, all the bias 0x20, plus segmin 0xF0: 0x10 after the wrap, also as 16-bit cells.
    SegmentFields f;
    f.segSize = 100;
    f.hasSegmin = true;
    f.segmin = 0xF0;
    f.hasBias = true;
    f.bias = 0x20;
    f.map = {0xE0, 0x68}; // 96 + 104 matches: the 200 slots
    const std::vector<uint8_t> segment = BuildCompressedSegment(f);
    EXPECT_EQ(Expand(segment, 100), std::vector<uint8_t>(100, 0x10));
    EXPECT_EQ(ToCells<uint16_t>(Expand(segment, 200, 2)), std::vector<uint16_t>(100, 0x0010));
}

TEST(SegmentDecode, StoredSegmentsIgnoreTheCompressionFields)
{
    std::vector<uint8_t> raw(4096);
    for (size_t i = 0; i < raw.size(); ++i)
        raw[i] = uint8_t(i * 7 + 3);
    for (unsigned byteMode = 0; byteMode < 4; ++byteMode) {
        std::vector<uint8_t> seg = BuildStoredSegment(byteMode, raw);
        seg[0] |= 0x70; // algVersion 3 and subadd: irrelevant to a stored segment
        seg[1] |= 0x55; // nonMatchLength bits: likewise
        EXPECT_EQ(Expand(seg, 4096), raw) << byteMode;
        const std::vector<uint8_t> shortRaw(raw.begin(), raw.begin() + 40);
        EXPECT_EQ(Expand(BuildStoredSegment(byteMode, shortRaw), 40), shortRaw) << byteMode;
    }
}

// The format read one slot at a time, the way it is described: the cells of a segment of `elems`
// elements of `cellBytes` bytes, or nothing when the map runs out or the stream runs past the
// segment (it may run on into the map's bytes).
std::vector<uint64_t> ReadSlotBySlot(const SegmentFields& f, size_t elems, size_t cellBytes)
{
    const unsigned planes = unsigned(2 * cellBytes);
    std::vector<uint64_t> cells(elems, f.bias);
    size_t mapPos = 0;
    size_t nibblePos = 0;
    std::vector<uint8_t> streamAndMap = f.stream;
    streamAndMap.insert(streamAndMap.end(), f.map.begin(), f.map.end());
    auto readNibble = [&](uint8_t& x) {
        if (nibblePos >= 2 * streamAndMap.size())
            return false;
        const uint8_t byte = streamAndMap[nibblePos / 2];
        x = nibblePos++ % 2 ? byte & 0xF : byte >> 4;
        return true;
    };
    uint8_t last = uint8_t(f.bias >> (4 * (planes - 1))) & 0xF;
    unsigned owed = 0;
    size_t slot = 0;
    const size_t slots = elems * planes;
    auto nonMatch = [&]() {
        const unsigned shift = 4 * (planes - 1 - unsigned(slot / elems));
        const uint8_t escape = uint8_t(f.bias >> shift) & 0xF;
        uint8_t x = last;
        if (owed != 0) {
            --owed;
        } else {
            if (!readNibble(x))
                return false;
            if (x == escape) {
                uint8_t runLength;
                if (!readNibble(runLength))
                    return false;
                if (runLength == escape) {
                    uint8_t high;
                    uint8_t low;
                    if (!readNibble(high) || !readNibble(low))
                        return false;
                    runLength = uint8_t(high << 4 | low);
                }
                owed = uint8_t(runLength - 2);
                x = last;
            }
            last = x;
        }
        uint64_t& cell = cells[slot % elems];
        cell = (cell & ~(uint64_t(0xF) << shift)) | uint64_t(x) << shift;
        return true;
    };
    while (slot < slots) {
        if (mapPos >= f.map.size())
            return {};
        const uint8_t e = f.map[mapPos++];
        if (e < 0x40) {
            for (unsigned bit = 0x20; bit != 0 && slot < slots; bit >>= 1, ++slot)
                if ((e & bit) == 0 && !nonMatch())
                    return {};
        } else if (e < 0x80) {
            for (unsigned n = e & 0x3F; n != 0 && slot < slots; --n, ++slot)
                if (!nonMatch())
                    return {};
        } else {
            size_t skip = e < 0xC0 ? e & 0x3F : e < 0xE0 ? 64 + (e & 0x1F) : 96 + (size_t(e & 0x1F) << 8);
            if (e >= 0xE0) {
                if (mapPos >= f.map.size())
                    return {};
                skip += f.map[mapPos++];
            }
            slot += skip;
            if (slot >= slots)
                break;
            if (!nonMatch())
                return {};
            ++slot;
        }
    }
    const uint64_t width = cellBytes == 8 ? ~uint64_t(0) : (uint64_t(1) << (8 * cellBytes)) - 1;
    for (uint64_t& cell : cells)
        cell = (cell + f.segmin) & width;
    return cells;
}

TEST(SegmentDecode, AgreesWithSlotBySlotReadingOnRandomSegments)
{
    std::mt19937_64 rng(11);
    for (int round = 0; round < 4000; ++round) {
        SegmentFields f;
        f.byteMode = unsigned(rng() % 4);
        const size_t cellBytes = size_t(1) << f.byteMode;
        const size_t elems = 1 + rng() % (600 / cellBytes);
        f.segSize = uint16_t(elems * cellBytes);
        const uint64_t width = cellBytes == 8 ? ~uint64_t(0) : (uint64_t(1) << (8 * cellBytes)) - 1;
        f.hasBias = true;
        f.bias = rng() & width;
        if (rng() % 2) // bias nibbles that repeat make escapes frequent
            f.bias = (0x1111111111111111ull * (rng() % 16)) & width;
        f.hasSegmin = rng() % 4 == 0;
        f.segmin = f.hasSegmin ? rng() & width : 0;
        // Streams of few distinct nibbles, so that literals repeat and escapes occur.
        const unsigned alphabet = 2 + unsigned(rng() % 15);
        f.stream.resize(rng() % 1200);
        for (uint8_t& b : f.stream)
            b = uint8_t((rng() % alphabet) << 4 | (rng() % alphabet));
        // Maps mostly of groups and non-match runs, so that they cover many slots.
        f.map.resize(rng() % 900);
        for (uint8_t& e : f.map) {
            const unsigned kind = unsigned(rng() % 10);
            const uint64_t low = rng() % 0x40;
            e = uint8_t(kind < 5 ? low : kind < 8 ? 0x40 | low : kind < 9 ? 0x80 | low : rng());
        }
        const std::vector<uint8_t> segment = BuildCompressedSegment(f);
        // The zero padding after the map is read as map entries too, up to the segment's end.
        const size_t fieldBytes = 6 + (f.hasSegmin ? cellBytes : 0) + cellBytes;
        SegmentFields padded = f;
        padded.map.resize(segment.size() - fieldBytes - f.stream.size(), 0);
        const std::vector<uint64_t> expected = ReadSlotBySlot(padded, elems, cellBytes);
        const std::vector<uint8_t> out = Expand(segment, f.segSize);
        std::vector<uint64_t> cells(out.size() / cellBytes);
        for (size_t i = 0; i < cells.size(); ++i)
            for (size_t b = 0; b < cellBytes; ++b)
                cells[i] |= uint64_t(out[i * cellBytes + b]) << (8 * b);
        ASSERT_EQ(cells, expected) << "round " << round;
    }
}

} // namespace
