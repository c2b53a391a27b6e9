// Expansion of single segments: the documented example segments, stored segments, and random
// segments of every map entry kind, escape form and plane crossing against slot-by-slot reading.
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
        const size_t elems = rng() % 8 == 0 ? 4096 / cellBytes : 1 + rng() % (600 / cellBytes);
        f.segSize = uint16_t(elems * cellBytes);
        f.standard = f.segSize == 4096 && rng() % 2;
        const uint64_t width = cellBytes == 8 ? ~uint64_t(0) : (uint64_t(1) << (8 * cellBytes)) - 1;
        // A bias field comes with segmin, or alone as version 1; versions 0, 2 and 3 have none.
        f.hasSegmin = rng() % 4 == 0;
        f.segmin = f.hasSegmin ? rng() & width : 0;
        f.algVersion = int(rng() % 4);
        f.hasBias = f.hasSegmin || f.algVersion == 1;
        f.bias = f.hasBias ? rng() & width : 0;
        if (f.hasBias && rng() % 2) // bias nibbles that repeat make escapes frequent
            f.bias = (0x1111111111111111ull * (rng() % 16)) & width;
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
        const size_t fieldBytes = (f.standard ? 4 : 6) + (f.hasSegmin + f.hasBias) * cellBytes;
        SegmentFields padded = f;
        padded.map.resize(segment.size() - fieldBytes - f.stream.size(), 0);
        const std::vector<uint64_t> expected = ReadSlotBySlot(padded, elems, cellBytes);
        // Byte segments also widen to 16-bit cells.
        const size_t wordSize = f.byteMode == 0 && rng() % 2 ? 2 : 0;
        const size_t outBytes = wordSize == 2 ? 2 * elems : elems * cellBytes;
        const std::vector<uint8_t> out = Expand(segment, outBytes, wordSize);
        const size_t outCell = outBytes / elems;
        std::vector<uint64_t> cells(out.size() / outCell);
        for (size_t i = 0; i < cells.size(); ++i)
            for (size_t b = 0; b < outCell; ++b)
                cells[i] |= uint64_t(out[i * outCell + b]) << (8 * b);
        ASSERT_EQ(cells, expected) << "round " << round;
    }
}

} // namespace
