// Choice of segmin and bias: the histogram search, the bias hint read back from compressed
// segments, and what each compression level puts into the segment headers.
#include "CodecTestPeer.h"
#include "FindDuloBias.h"
#include "SegmentFormat.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>

namespace {

using Bytes = std::vector<uint8_t>;

TEST(BiasSelection, HistogramSearchTakesTheMostFrequentNibbleSmallestOnTies)
{
    const std::pair<Bytes, uint8_t> cases[] = {
        {{}, 0x00}, {{0x12, 0x34, 0x32}, 0x32}, {{0x12, 0x34}, 0x12}, {{0x15, 0x65, 0x22, 0x32}, 0x12}};
    for (const auto& c : cases)
        EXPECT_EQ(CFindDuloBias<uint8_t>().FindDuloBias(c.first.data(), c.first.size()), c.second);
    const uint16_t shorts[] = {0xABCD, 0xAB00, 0x0BC0, 0x1111};
    EXPECT_EQ(CFindDuloBias<uint16_t>().FindDuloBias(reinterpret_cast<const uint8_t*>(shorts), 4), 0xABC0);
}

// Against every nibble of every cell counted one by one, on cells whose bytes each lean to a value
// of their own, in odd and even numbers of cells.
template <typename T>
void ExpectSearchAgreesWithNibbleCounts(std::mt19937_64& rng)
{
    for (int round = 0; round < 40; ++round) {
        const size_t elems = 1 + rng() % (round % 2 != 0 ? 7 : 700); // few cells: near ties
        Bytes data(elems * sizeof(T));
        for (size_t i = 0; i < data.size(); ++i)
            data[i] = uint8_t(rng() % 2 ? 0x1F * (i % sizeof(T) + 1) : rng());
        uint64_t expected = 0;
        for (unsigned shift = 8 * sizeof(T); shift != 0;) {
            shift -= 4;
            HISTO counts{};
            for (size_t e = 0; e < elems; ++e)
                ++counts[LoadLE<T>(data.data() + e * sizeof(T)) >> shift & 0xF];
            expected = expected << 4 | GetMax(counts);
        }
        ASSERT_EQ(uint64_t(CFindDuloBias<T>().FindDuloBias(data.data(), elems)), expected)
            << sizeof(T) << "-byte cells, round " << round;
    }
}

TEST(BiasSelection, HistogramSearchCountsEveryNibbleOfEveryCell)
{
    std::mt19937_64 rng(41);
    ExpectSearchAgreesWithNibbleCounts<uint8_t>(rng);
    ExpectSearchAgreesWithNibbleCounts<uint16_t>(rng);
    ExpectSearchAgreesWithNibbleCounts<uint32_t>(rng);
    ExpectSearchAgreesWithNibbleCounts<uint64_t>(rng);
}

template <typename T>
bool Hint(const Bytes& segment, T& hint)
{
    COptimalBiasDulo codec;
    return COptimalBiasDuloTestPeer::GetBiasHint<T>(codec, segment, hint);
}

template <typename T>
Bytes Encode(std::vector<T> cells, T segmin, T bias, bool reduce = false)
{
    COptimalBiasDulo codec;
    if (reduce)
        codec.SetReduceWordSize();
    return COptimalBiasDuloTestPeer::Deflate<T>(codec, cells, segmin, bias);
}

TEST(BiasHint, LearnsTheMajorityNibblesAndKeepsTheBiasLowNibble)
{
    std::vector<uint16_t> cells(2048);
    for (size_t i = 0; i < cells.size(); ++i)
        cells[i] = i % 4 == 3 ? 0x1234 : 0x7777; // no six non-matches in a row
    uint16_t hint = 0;
    ASSERT_TRUE(Hint(Encode<uint16_t>(cells, 0, 0x1234), hint));
    EXPECT_EQ(hint, 0x7774);

    std::vector<uint32_t> level(1024, 0xCAFE0000);
    uint32_t levelHint = 0;
    ASSERT_TRUE(Hint(Encode<uint32_t>(level, 0, 0xCAFE0000), levelHint));
    EXPECT_EQ(levelHint, 0xCAFE0000u);

    std::vector<uint16_t> shifted(2048, 0x0042);
    uint16_t shiftedHint = 0;
    ASSERT_TRUE(Hint(Encode<uint16_t>(shifted, 1000, 0x0042), shiftedHint));
    EXPECT_EQ(shiftedHint, 1000 + 0x42);
}

TEST(BiasHint, NonMatchRunEntryAttributesWholePlanesToTheStream)
{
    SegmentFields f;
    f.standard = true;
    f.hasBias = true;
    f.bias = 0x3C;
    f.stream = {0x70};
    f.map = {0x41};
    uint8_t hint = 0;
    ASSERT_TRUE(Hint(BuildCompressedSegment(f), hint));
    EXPECT_EQ(hint, 0x7C);
}

TEST(BiasHint, NothingToLearnFromStoredOrShortSegments)
{
    uint8_t hint = 0x55;
    EXPECT_FALSE(Hint(BuildStoredSegment(0, Bytes(4096, 1)), hint));
    EXPECT_FALSE(Hint(Encode<uint8_t>(Bytes(2047, 0x21), 0, 0x21), hint));
    EXPECT_EQ(hint, 0x55);
    EXPECT_TRUE(Hint(Encode<uint8_t>(Bytes(2048, 0x21), 0, 0x21), hint));
    EXPECT_EQ(hint, 0x21);
}

TEST(BiasHint, ShortsCodedAsBytesGiveAByteHint)
{
    std::vector<uint16_t> cells(4096);
    for (size_t i = 0; i < cells.size(); ++i)
        cells[i] = uint16_t(0x90 + i % 3);
    uint16_t hint = 0;
    ASSERT_TRUE(Hint(Encode<uint16_t>(cells, 0, 0x0090, true), hint));
    EXPECT_EQ(hint, 0x90);
}

// The hint replayed one slot at a time, as it is described: each slot's nibble booked in its
// plane (a match books the plane's bias nibble), planes up to the second lowest, the lowest
// taken from the bias; from a non-match run entry on, the stream alone with its wrapping counter.
template <typename T>
T ReferenceHint(const Bytes& seg)
{
    CSegmentFields<T> f;
    EXPECT_TRUE(ParseSegment(seg.data(), seg.size(), f));
    constexpr unsigned P = 2 * sizeof(T);
    const size_t elems = f.segSize / sizeof(T);
    std::array<HISTO, P> histo{};
    unsigned plane = 0;
    size_t rem = elems, nib = 2 * f.dataOffset, mapPos = f.mapOffset;
    bool done = false;
    auto biasNib = [&] { return uint8_t(f.bias >> (4 * (P - 1 - plane)) & 0xF); };
    auto raw = [&] {
        const uint8_t b = nib / 2 < seg.size() ? seg[nib / 2] : 0;
        EXPECT_LT(nib / 2, seg.size()) << "the stream runs past the segment";
        return uint8_t(nib++ % 2 ? b & 0xF : b >> 4);
    };
    auto runLength = [&] {
        const uint8_t n = raw();
        return n != biasNib() ? n : uint8_t(raw() << 4 | raw());
    };
    auto book = [&](uint8_t nibble, size_t count) {
        histo[plane][nibble] += count;
        if ((rem -= count) == 0 && !(done = plane == P - 2)) {
            ++plane;
            rem = elems;
        }
    };
    uint8_t last = biasNib(), owed = 0;
    auto nonMatch = [&] { // the decoder's reading
        if (owed != 0)
            --owed;
        else if (const uint8_t x = raw(); x != biasNib())
            last = x;
        else
            owed = uint8_t(runLength() - 2);
        book(last, 1);
    };
    while (!done) {
        const uint8_t e = seg.at(mapPos++);
        if (e >= 0x80) {
            size_t skip = e < 0xC0 ? e & 0x3F : e < 0xE0 ? 64 + (e & 0x1F) : 96 + (size_t(e & 0x1F) << 8);
            skip += e >= 0xE0 ? seg.at(mapPos++) : 0;
            for (; skip != 0 && !done; --skip)
                book(biasNib(), 1);
            if (!done)
                nonMatch();
        } else if (e > 0x40) {
            for (bool readNext = owed == 0; !done; readNext = owed == 0) {
                size_t run = 1;
                if (!readNext)
                    run = --owed != 0 ? owed + 1u : 1u;
                else if (const uint8_t x = raw(); x != biasNib())
                    last = x;
                else if ((owed = uint8_t(runLength() - 2)) != 0)
                    run = owed + 1u;
                run = std::min(run, rem);
                book(last, run);
                owed = uint8_t(owed - run);
            }
        } else if (e < 0x40) {
            for (unsigned bit = 0x20; bit != 0 && !done; bit >>= 1)
                e & bit ? book(biasNib(), 1) : nonMatch();
        }
    }
    uint64_t result = 0;
    for (unsigned p = 0; p + 1 < P; ++p)
        result = result << 4 | GetMax(histo[p]);
    return T((result << 4 | (f.bias & 0xF)) + f.segmin);
}

TEST(BiasHint, AgreesWithSlotBySlotReplayOnEncodedSegments)
{
    std::mt19937_64 rng(31);
    auto check = [&](auto zero, int round) {
        using T = decltype(zero);
        const T width = T(~T(0));
        // Two values in nearly equal numbers, so that a slot booked in the wrong plane or twice
        // changes the hint. Either the two alternate in random order (no run entries, so groups
        // reach the plane ends, which lengths that are no multiple of 6 put inside a group), or
        // shuffled with sorted stretches (runs, escapes and run entries).
        const size_t cells = (2048 + rng() % 2049) / sizeof(T);
        const T level = T(rng()), other = T(rng() % 2 ? rng() : level + 1 + rng() % 3);
        const bool alternate = rng() % 2;
        std::vector<T> values(cells, other);
        for (size_t i = 0; i < cells; i += 2) {
            const bool flip = alternate && rng() % 2;
            values[i] = flip ? other : level;
            values[std::min(i + 1, cells - 1)] = flip ? level : other;
        }
        if (alternate && rng() % 2) {
            // A run entry late in the first plane: the rest of it is replayed from the stream
            // alone, and the counts balanced again in the first half.
            const size_t length = 6 + rng() % 40, at = cells - length - rng() % 20;
            std::fill_n(values.begin() + std::ptrdiff_t(at), length, other);
            for (size_t more = length / 2; more != 0; --more)
                values[2 * (rng() % (cells / 4)) + (values[0] == other ? 0 : 1)] = level;
        }
        values[rng() % cells] = rng() % 2 ? level : other;
        if (!alternate) {
            std::shuffle(values.begin(), values.end(), rng);
            for (int k = 0; k < 8; ++k) {
                const size_t from = rng() % cells, to = std::min(cells, from + rng() % 64);
                std::sort(values.begin() + std::ptrdiff_t(from), values.begin() + std::ptrdiff_t(to));
            }
        }
        const T bias = alternate || rng() % 2 ? level : T(rng() & width);
        const Bytes seg = Encode<T>(values, 0, bias);
        T hint = 0;
        ASSERT_TRUE(Hint(seg, hint)) << "round " << round;
        ASSERT_EQ(uint64_t(hint), uint64_t(ReferenceHint<T>(seg))) << "round " << round << ", " << sizeof(T) << " bytes";
    };
    for (int round = 0; round < 300; ++round) {
        check(uint8_t(0), round);
        check(uint16_t(0), round);
        check(uint32_t(0), round);
        check(uint64_t(0), round);
    }
}

// The segmin and bias fields of each segment of a compressed buffer.
struct SegmentValues
{
    bool hasSegmin;
    uint64_t segmin;
    uint64_t bias;
};

std::vector<SegmentValues> SegmentsOf(const Bytes& cmp, size_t cellSize)
{
    std::vector<SegmentValues> values;
    for (size_t pos = 0; pos < cmp.size();) {
        const auto hdr = COptimalBiasDulo::SegmentHeader::FromWord(LoadWord(Bytes(cmp.begin() + pos, cmp.end())));
        const size_t fieldBytes = hdr.byteMode == COptimalBiasDulo::BYTE_MODE ? 1 : cellSize;
        size_t field = pos + (hdr.stdSegSize ? 4 : 6);
        SegmentValues v{hdr.subadd == 1, 0, 0};
        auto read = [&]() {
            uint64_t x = 0;
            std::memcpy(&x, cmp.data() + field, fieldBytes);
            field += fieldBytes;
            return x;
        };
        if (hdr.mapCode && hdr.subadd)
            v.segmin = read();
        if (hdr.mapCode && (hdr.algVersion == 1 || hdr.subadd))
            v.bias = read();
        values.push_back(v);
        pos += hdr.compSegSize;
    }
    return values;
}

template <typename T>
Bytes Compress(COptimalBiasDulo& codec, std::vector<T> cells)
{
    Bytes out(codec.GetWorstCaseCmpBufSize(sizeof(T), cells.size() * sizeof(T)));
    out.resize(codec.Compress(cells.data(), cells.size() * sizeof(T), sizeof(T), out.data(), out.size()));
    return out;
}

TEST(CompressionLevels, SegmentMinimumAtLevelNine)
{
    // 16-bit cells from `low` to `high`: under word-size reduction the minimum is removed only
    // where every value is below 256 (the segment is then coded as bytes, 8192 of them here).
    const struct
    {
        size_t count;
        uint16_t low, high;
        bool reduce;
        uint64_t segmin; // 0: no field
    } shorts[] = {{100, 300, 399, false, 300}, {100, 300, 399, true, 0}, {4096, 1, 255, true, 1},
                  {4096, 2, 256, true, 0}, {2048, 1, 256, false, 1}};
    for (const auto& c : shorts) {
        std::vector<uint16_t> cells(c.count);
        for (size_t i = 0; i < cells.size(); ++i)
            cells[i] = uint16_t(c.low + i % (c.high - c.low + 1));
        COptimalBiasDulo codec;
        codec.SetCompressLevel(9);
        if (c.reduce)
            codec.SetReduceWordSize();
        const auto segs = SegmentsOf(Compress(codec, cells), 2);
        ASSERT_FALSE(segs.empty());
        EXPECT_EQ(segs[0].hasSegmin, c.segmin != 0) << c.high;
        EXPECT_EQ(segs[0].segmin, c.segmin) << c.high;
    }
    struct Case
    {
        std::vector<uint32_t> cells;
        bool hasSegmin;
    };
    const Case cases[] = {{{1000, 1001, 1002}, false}, {{1000, 1001, 1002, 1003}, true}, {{5, 0, 5, 5, 5}, false}};
    for (const Case& c : cases) {
        COptimalBiasDulo codec;
        codec.SetCompressLevel(9);
        EXPECT_EQ(SegmentsOf(Compress(codec, c.cells), 4)[0].hasSegmin, c.hasSegmin) << c.cells.size();
    }
}

TEST(CompressionLevels, MinimumScanStopsAtTheFirstZero)
{
    // 300 cells of 50 with a zero at `zero`: the scan's report names the cells it looked at.
    const std::pair<size_t, std::string> cases[] = {{0, "0x0 e: 1"},
                                                    {3, "0x0 e: 4"},
                                                    {64, "0x0 e: 65"},
                                                    {65, "0x0 e: 66"},
                                                    {200, "0x0 e: 201"},
                                                    {299, "0x0 e: 300"},
                                                    {300, "0x32 e: 300"}};
    for (const auto& [zero, report] : cases) {
        std::vector<uint16_t> cells(300, 50);
        if (zero < cells.size())
            cells[zero] = 0;
        COptimalBiasDulo codec;
        codec.SetCompressLevel(9);
        codec.SetDebugLevel(1);
        CCapturedStream captured(std::cout);
        Compress(codec, cells);
        EXPECT_EQ(captured.Text().rfind("GetTrueMin: cur min: " + report + "\n", 0), 0u) << zero;
    }
}

TEST(CompressionLevels, HintFromEveryFourthSegmentAtLevelFourCarriesAcrossCalls)
{
    std::vector<uint16_t> cells(6 * 2048);
    for (size_t i = 0; i < cells.size(); ++i)
        cells[i] = i % 3 == 0 ? 0x0000 : 0x0500; // never six non-matches in a row
    COptimalBiasDulo codec;
    codec.SetDebugLevel(1);
    CCapturedStream captured(std::cout);
    const auto first = SegmentsOf(Compress(codec, cells), 2);
    ASSERT_EQ(first.size(), 6u);
    for (size_t seg = 0; seg < 4; ++seg)
        EXPECT_EQ(first[seg].bias, 0u) << seg;
    EXPECT_EQ(first[4].bias, 0x0500u);
    EXPECT_EQ(first[5].bias, 0x0500u);
    EXPECT_EQ(captured.Text(), "L4 BiasHint 0x500 Seg 4\n");

    const auto second = SegmentsOf(Compress(codec, std::vector<uint16_t>(2048, 7)), 2);
    EXPECT_EQ(second[0].bias, 0x0500u);
}

} // namespace
