// The codec on several threads of its pool: for every level, cell size and word-size setting the
// bytes, the hint carried to the next call and the failures are those of one thread. Run under
// ThreadSanitizer too.
#include "ExpansionFailure.h"
#include "OptimalBiasDulo.h"
#include "ParallelSegments.h"
#include "PluginThreads.h"
#include "SampleData.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <thread>
#include <vector>

namespace {

using Bytes = std::vector<uint8_t>;

// Drifting data (hints that change as it goes) with stretches of 16-bit values below 256 three
// segments long, so that under word-size reduction a byte segment of 8192 bytes is followed by an
// ordinary one of small values (its next 4096 bytes do not fit in bytes), then by ordinary ones.
Bytes Cells(size_t cellBytes, size_t count, uint64_t seed)
{
    Bytes cells = MakeShapeBytes(EShape::DRIFTING, cellBytes, count, seed);
    if (cellBytes == 2)
        for (size_t i = 0; i < cells.size(); i += 2)
            if ((i / 12288) % 2 == 0)
                cells[i + 1] = 0;
    return cells;
}

struct CSetup
{
    size_t cellBytes;
    size_t level;
    bool reduce;
};

COptimalBiasDulo Codec(const CSetup& s)
{
    COptimalBiasDulo codec;
    codec.SetCompressLevel(s.level);
    if (s.reduce)
        codec.SetReduceWordSize();
    codec.SetInflateWordSize(s.cellBytes);
    return codec;
}

Bytes Compress(COptimalBiasDulo& codec, Bytes cells, size_t cellBytes, unsigned threads, size_t room = 0)
{
    Bytes out(room != 0 ? room : codec.GetWorstCaseCmpBufSize(cellBytes, cells.size()));
    out.resize(codec.CompressOnThreads(cells.data(), cells.size(), cellBytes, out.data(), out.size(), threads));
    return out;
}

std::vector<CSetup> Setups()
{
    std::vector<CSetup> setups;
    for (size_t cellBytes : {1, 2, 4, 8})
        for (size_t level : {0, 1, 4, 6, 7, 8, 9})
            setups.push_back({cellBytes, level, cellBytes == 2 && level % 2 == 0});
    return setups;
}

TEST(ThreadCount, BytesAndCarriedHintAreThoseOfOneThread)
{
    // 128 KiB + 6 cells: 33 segments, one past a whole number of the pool's tasks, the last one
    // short; 64 KiB, the least that goes to the pool: one task of each kind. Two calls on one
    // codec: the second starts from the hint and segment count the first left; for 16-bit cells
    // its last 1412 bytes end a byte segment begun 4096 bytes before them.
    for (const CSetup& s : Setups()) {
        const size_t counts[] = {(128 * 1024) / s.cellBytes + 6, COptimalBiasDulo::MIN_PARALLEL_BYTES / s.cellBytes};
        for (const size_t count : counts) {
            const Bytes first = Cells(s.cellBytes, count, 1), second = Cells(s.cellBytes, count + 10940, 2);
            COptimalBiasDulo one = Codec(s);
            const Bytes expected1 = Compress(one, first, s.cellBytes, 1);
            const Bytes expected2 = Compress(one, second, s.cellBytes, 1);
            ASSERT_FALSE(expected1.empty());
            for (unsigned threads : {2u, 3u, 64u}) {
                SCOPED_TRACE(testing::Message() << "cell " << s.cellBytes << " level " << s.level << " reduce "
                                                << s.reduce << " threads " << threads << " cells " << count);
                COptimalBiasDulo many = Codec(s);
                EXPECT_EQ(Compress(many, first, s.cellBytes, threads), expected1);
                EXPECT_EQ(Compress(many, second, s.cellBytes, threads), expected2);
                Bytes back(first.size());
                EXPECT_EQ(
                    many.DecompressOnThreads(expected1.data(), expected1.size(), back.data(), back.size(), threads),
                    back.size());
                EXPECT_EQ(back, first);
            }
        }
    }
}

TEST(ThreadCount, StoredSegmentsFillTheirWholeScratchSlots)
{
    // Cells of the full range are stored, at the worst-case size: each segment's slot of scratch
    // space must hold it without reaching into the next one's. The pool must really code them.
    for (const CSetup& s : {CSetup{1, 4, false}, CSetup{2, 4, true}, CSetup{4, 0, false}, CSetup{8, 9, false}}) {
        SCOPED_TRACE(testing::Message() << "cell " << s.cellBytes);
        Bytes cells = MakeShapeBytes(EShape::RANDOM, s.cellBytes, (160 << 10) / s.cellBytes, 5);
        if (s.reduce) // random bytes, in segments of 8192 bytes
            for (size_t i = 1; i < cells.size(); i += 2)
                cells[i] = 0;
        COptimalBiasDulo one = Codec(s), many = Codec(s);
        EXPECT_EQ(Compress(many, cells, s.cellBytes, 2), Compress(one, cells, s.cellBytes, 1));
        COptimalBiasDulo probe = Codec(s);
        EXPECT_TRUE(CParallelSegments(probe, cells.data(), cells.size(), s.cellBytes, 2).Coded());
    }
}

TEST(ThreadCount, CallersAtOnceEachGetTheBytesOfTheirOwnData)
{
    // Each caller codes its own cells on the pool: the scratch space that one of them keeps between
    // calls must never be another's at the same time.
    const CSetup s{4, 4, false};
    std::vector<Bytes> cells, expected;
    for (uint64_t t = 0; t < 4; ++t) {
        cells.push_back(Cells(4, (96 << 10) / 4 + 1000 * t, 10 + t));
        COptimalBiasDulo one = Codec(s);
        expected.push_back(Compress(one, cells.back(), 4, 1));
    }
    std::vector<int> wrong(cells.size(), 0);
    std::vector<std::thread> callers;
    for (size_t t = 0; t < cells.size(); ++t)
        callers.emplace_back([&, t] {
            for (int i = 0; i < 100; ++i) {
                COptimalBiasDulo codec = Codec(s);
                wrong[t] += Compress(codec, cells[t], 4, 2) != expected[t];
            }
        });
    for (std::thread& caller : callers)
        caller.join();
    EXPECT_EQ(wrong, std::vector<int>(cells.size(), 0));
}

TEST(ThreadCount, FailureForLackOfRoomLeavesTheCodecAsOneThreadDoes)
{
    for (const CSetup& s : {CSetup{2, 5, true}, CSetup{4, 3, false}}) {
        const Bytes cells = Cells(s.cellBytes, 200 * 1024 / s.cellBytes, 3);
        COptimalBiasDulo probe = Codec(s);
        const size_t room = Compress(probe, cells, s.cellBytes, 1).size() / 2;
        COptimalBiasDulo one = Codec(s), many = Codec(s);
        CCapturedStream err(std::cerr);
        EXPECT_TRUE(Compress(one, cells, s.cellBytes, 1, room).empty());
        const std::string serialLine = err.Text();
        EXPECT_TRUE(Compress(many, cells, s.cellBytes, 4, room).empty());
        EXPECT_EQ(err.Text(), serialLine + serialLine);
        const Bytes next = Cells(s.cellBytes, 30000, 4);
        EXPECT_EQ(Compress(many, next, s.cellBytes, 1), Compress(one, next, s.cellBytes, 1)) << s.level;
    }
}

TEST(ThreadCount, CellSizesTheCodecRefusesFailAsOnOneThread)
{
    Bytes cells(96 * 1024, 1);
    for (size_t cellBytes : {0, 3, 16}) {
        COptimalBiasDulo codec;
        Bytes out(2 * cells.size());
        CCapturedStream err(std::cerr);
        EXPECT_EQ(codec.CompressOnThreads(cells.data(), cells.size(), cellBytes, out.data(), out.size(), 2), 0u);
        EXPECT_NE(err.Text().find("Error: Halting DULO"), std::string::npos) << cellBytes;
    }
}

TEST(ThreadCount, DamageIsReportedAtTheSegmentOneThreadReportsIt)
{
    const Bytes cells = MakeShapeBytes(EShape::NEAR_LEVEL, 4, 60000, 5);
    COptimalBiasDulo codec = Codec({4, 4, false});
    const Bytes good = Compress(codec, cells, 4, 1);
    // Offsets of the segments, from the length in each header word.
    std::vector<size_t> starts;
    for (size_t at = 0; at < good.size(); at += LoadWord(Bytes(good.begin() + at, good.begin() + at + 4)) >> 19)
        starts.push_back(at);
    const size_t middle = starts[starts.size() / 2];
    struct CDamage
    {
        const char* name;
        size_t keep; // bytes kept
        size_t from; // bytes from here to the next segment are cleared (a map that no longer covers the slots)
    };
    const CDamage damages[] = {{"map and stream", good.size(), middle + 12},
                               {"cut inside a segment", middle + 100, good.size()},
                               {"cut inside a header", middle + 2, good.size()}};
    for (const CDamage& d : damages) {
        Bytes bad(good.begin(), good.begin() + d.keep);
        for (size_t i = d.from; i < bad.size() && i < starts[starts.size() / 2 + 1]; ++i)
            bad[i] = 0;
        Bytes back(cells.size());
        CCapturedStream out(std::cout);
        const size_t serial = codec.Decompress(bad.data(), bad.size(), back.data(), back.size());
        const CExpansionFailure failure = LastExpansionFailure();
        const std::string line = out.Text();
        const size_t parallel = codec.DecompressOnThreads(bad.data(), bad.size(), back.data(), back.size(), 2);
        EXPECT_EQ(parallel, serial) << d.name;
        EXPECT_EQ(out.Text(), line + line) << d.name;
        EXPECT_EQ(LastExpansionFailure().segment, failure.segment) << d.name;
        EXPECT_EQ(LastExpansionFailure().offset, failure.offset) << d.name;
        EXPECT_STREQ(LastExpansionFailure().reason, failure.reason) << d.name;
        EXPECT_LT(serial, back.size()) << d.name;
    }
}

TEST(ThreadCount, PluginCountComesFromTheEnvironment)
{
    const struct
    {
        const char* value;
        unsigned threads;
    } cases[] = {{nullptr, 1}, {"", 1}, {"2", 2}, {"7", 7}, {"12", 12}, {"0", 1}, {"-3", 1}, {"2x", 1}, {"two", 1},
                 {"64", 64}, {"65", 64}, {"99999999999999999999", 1}};
    for (const auto& c : cases) {
        SetEnvironment("MERTAX_NTHREADS", c.value);
        EXPECT_EQ(PluginThreadCount(), c.threads) << (c.value ? c.value : "unset");
    }
    SetEnvironment("MERTAX_NTHREADS", nullptr);
}

} // namespace
