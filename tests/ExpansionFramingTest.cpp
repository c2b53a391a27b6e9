// Expansion of whole buffers: walking from segment to segment, widening byte segments, stopping
// on damaged or oversized segments.
#include "ExpansionFailure.h"
#include "OptimalBiasDulo.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

namespace {

const std::vector<uint8_t> FOUR_BYTES = {0x92, 0x00, 0x60, 0x00, 0x04, 0x00, 0x12, 0x30, 0x86, 0x81, 0x00, 0x00};
const std::vector<uint8_t> EIGHT_BYTES = {0x02, 0x01, 0x60, 0x00, 0x08, 0x00, 0x50, 0x57, 0x88, 0x44, 0x28, 0x00};
const std::vector<uint8_t> FOUR_VALUES = {0x12, 0x12, 0x13, 0x12};
const std::vector<uint8_t> EIGHT_VALUES = {0x05, 0x05, 0x05, 0x05, 0x05, 0x00, 0x07, 0x00};

const char CORRUPT[] = "Error: deDULO corrupted data detected after decompress: ";

TEST(ExpansionFraming, SegmentsFollowOneAnother)
{
    const std::vector<uint8_t> stored = BuildStoredSegment(0, {1, 2, 3});
    const std::vector<uint8_t> cmp = Concat({FOUR_BYTES, EIGHT_BYTES, stored});
    COptimalBiasDulo codec;
    std::vector<uint8_t> out(15);
    ASSERT_EQ(codec.Decompress(cmp.data(), cmp.size(), out.data(), out.size()), 15u);
    EXPECT_EQ(out, Concat({FOUR_VALUES, EIGHT_VALUES, {1, 2, 3}}));
}

TEST(ExpansionFraming, ByteSegmentsWidenToShortCellsOnlyForWordSizeTwo)
{
    const std::vector<uint8_t> cmp = Concat({FOUR_BYTES, EIGHT_BYTES});
    for (size_t wordSize : {0, 1, 2, 4, 8}) {
        COptimalBiasDulo codec;
        codec.SetInflateWordSize(wordSize);
        std::vector<uint8_t> out(24);
        const size_t expected = wordSize == 2 ? 24 : 12;
        ASSERT_EQ(codec.Decompress(cmp.data(), cmp.size(), out.data(), out.size()), expected) << wordSize;
        out.resize(expected);
        std::vector<uint8_t> bytes = Concat({FOUR_VALUES, EIGHT_VALUES});
        if (wordSize == 2)
            EXPECT_EQ(ToCells<uint16_t>(out), std::vector<uint16_t>(bytes.begin(), bytes.end()));
        else
            EXPECT_EQ(out, bytes);
    }
}

TEST(ExpansionFraming, SecondFormExpandsOnlyWholeSegmentsThatFit)
{
    // The last segment is the smallest there is: 8 bytes.
    const std::vector<uint8_t> cmp = Concat({FOUR_BYTES, EIGHT_BYTES, FOUR_BYTES, BuildStoredSegment(0, {1, 2})});
    struct Case
    {
        size_t desired;
        size_t inflateWordSize;
        size_t produced;
        size_t consumed;
    };
    const Case cases[] = {
        {3, 0, 0, 0},   {4, 0, 4, 12},  {11, 0, 4, 12},  {12, 0, 12, 24},
        {15, 0, 12, 24}, {100, 0, 18, 44}, {7, 2, 0, 0},   {8, 2, 8, 12},
    };
    for (const Case& c : cases) {
        COptimalBiasDulo codec;
        codec.SetInflateWordSize(c.inflateWordSize);
        std::vector<uint8_t> out(c.desired);
        size_t consumed = 999;
        CCapturedStream captured(std::cout);
        EXPECT_EQ(codec.Decompress(cmp.data(), cmp.size(), out.data(), c.desired, &consumed), c.produced)
            << c.desired;
        EXPECT_EQ(consumed, c.consumed) << c.desired;
        // Stopping short of desiredSize, or at the end of the data, is no failure.
        EXPECT_EQ(captured.Text(), "") << c.desired;
        EXPECT_FALSE(LastExpansionFailure().failed) << c.desired;
        // Without a place for the count, the expansion is the same.
        std::vector<uint8_t> again(c.desired);
        EXPECT_EQ(codec.Decompress(cmp.data(), cmp.size(), again.data(), c.desired, nullptr), c.produced);
        EXPECT_EQ(again, out);
    }
    COptimalBiasDulo codec;
    size_t consumed = 999;
    uint8_t out[4];
    CCapturedStream captured(std::cout);
    EXPECT_EQ(codec.Decompress(cmp.data(), 0, out, 4, &consumed), 0u);
    EXPECT_EQ(consumed, 0u);
    EXPECT_EQ(captured.Text(), "");
}

// Each damaged buffer starts with one good 4-value segment, so 4 bytes come out before the stop.
TEST(ExpansionFraming, DamagedStreamsStopWithAMessageAndAShortCount)
{
    std::vector<uint8_t> zeroLength = FOUR_BYTES;
    zeroLength[2] = zeroLength[3] = 0;
    std::vector<uint8_t> pastTheEnd = EIGHT_BYTES;
    pastTheEnd[2] = 0x80; // compSegSize 16: four bytes past the data
    std::vector<uint8_t> zeroSegSize = EIGHT_BYTES;
    zeroSegSize[4] = 0;
    std::vector<uint8_t> oddShorts = EIGHT_BYTES;
    oddShorts[0] |= COptimalBiasDulo::SHORT_MODE << 2;
    oddShorts[4] = 7;
    std::vector<uint8_t> mapRunsOut = EIGHT_BYTES;
    mapRunsOut[9] = mapRunsOut[10] = mapRunsOut[11] = 0x40; // entries that cover no slot
    std::vector<uint8_t> streamRunsOut = EIGHT_BYTES;
    streamRunsOut[1] = 0x00; // nonMatchLength 0, so the first non-match finds no nibble
    const std::string returnedZero = "Error: deDULO returned: 0 after decompress: 4 bytes\n";
    const char* badLength = "has a length that is too short or runs past the data";
    struct Case
    {
        const char* name;
        std::vector<uint8_t> damaged;
        std::string message;
        const char* reason; // recorded for the front ends' messages
    };
    const Case cases[] = {
        {"compSegSize 0", zeroLength, std::string(CORRUPT) + "4 bytes\n", badLength},
        {"segment past the data", pastTheEnd, std::string(CORRUPT) + "4 bytes\n", badLength},
        {"three stray bytes", {0x11, 0x22, 0x33}, std::string(CORRUPT) + "4 bytes\n", badLength},
        {"segSize 0", zeroSegSize, returnedZero, "does not decode"},
        {"segSize not a multiple of the cell", oddShorts, returnedZero, "does not decode"},
        {"map ends before the last slot", mapRunsOut, returnedZero, "does not decode"},
        {"stream ends before the last non-match", streamRunsOut, returnedZero, "does not decode"},
    };
    for (const Case& c : cases) {
        const std::vector<uint8_t> cmp = Concat({FOUR_BYTES, c.damaged});
        for (bool secondForm : {false, true}) {
            COptimalBiasDulo codec;
            std::vector<uint8_t> out(64);
            CCapturedStream captured(std::cout);
            size_t consumed = 0;
            const size_t produced = secondForm
                                        ? codec.Decompress(cmp.data(), cmp.size(), out.data(), out.size(), &consumed)
                                        : codec.Decompress(cmp.data(), cmp.size(), out.data(), out.size());
            EXPECT_EQ(produced, 4u) << c.name;
            EXPECT_EQ(captured.Text(), c.message) << c.name;
            const CExpansionFailure& failure = LastExpansionFailure();
            EXPECT_TRUE(failure.failed && failure.segment == 1 && failure.offset == FOUR_BYTES.size() &&
                        failure.produced == 4)
                << c.name;
            EXPECT_STREQ(failure.reason, c.reason) << c.name;
            if (secondForm) {
                EXPECT_EQ(consumed, FOUR_BYTES.size()) << c.name;
            }
        }
    }
}

TEST(ExpansionFraming, FirstFormRefusesASegmentThatWouldOverrunTheOutput)
{
    const std::vector<uint8_t> cmp = Concat({FOUR_BYTES, EIGHT_BYTES});
    for (size_t capacity : {size_t(5), size_t(11)}) {
        COptimalBiasDulo codec;
        std::vector<uint8_t> out(capacity); // exact size: an overrun would be caught by the sanitizer
        CCapturedStream captured(std::cout);
        EXPECT_EQ(codec.Decompress(cmp.data(), cmp.size(), out.data(), out.size()), 4u);
        EXPECT_EQ(captured.Text(), std::string(CORRUPT) + "4 bytes\n");
        EXPECT_STREQ(LastExpansionFailure().reason, "would expand past the end of the output");
    }
    // Room to spare is no failure: the count says how much came out.
    COptimalBiasDulo codec;
    std::vector<uint8_t> out(64);
    CCapturedStream captured(std::cout);
    EXPECT_EQ(codec.Decompress(cmp.data(), cmp.size(), out.data(), out.size()), 12u);
    EXPECT_EQ(captured.Text(), "");
    EXPECT_FALSE(LastExpansionFailure().failed);
}

} // namespace
