// Codec objects on several threads at once: their failure lines and debug traces share the
// process's output stream, whose writes must stay whole lines and whose format state must come
// back as it was; the checked expansion must print nothing at all. Run under ThreadSanitizer too.
#include "CheckedExpansion.h"
#include "OptimalBiasDulo.h"
#include "SampleData.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

#include <iostream>
#include <sstream>
#include <thread>
#include <vector>

namespace {

std::vector<uint8_t> Compressed(const std::vector<uint8_t>& cells, size_t cellBytes)
{
    COptimalBiasDulo codec;
    std::vector<uint8_t> out(codec.GetWorstCaseCmpBufSize(cellBytes, cells.size()));
    out.resize(codec.Compress(const_cast<uint8_t*>(cells.data()), cells.size(), cellBytes, out.data(), out.size()));
    return out;
}

TEST(Concurrency, FailingExpansionsOnManyThreadsPrintWholeLines)
{
    const std::vector<uint8_t> cells = MakeShapeBytes(EShape::LOW_COUNTS, 2, 20000);
    std::vector<uint8_t> damaged = Compressed(cells, 2);
    damaged.resize(damaged.size() - 4);
    CCapturedStream out(std::cout);
    std::cout << std::hex; // a caller's format, which every line must leave alone
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&] {
            std::vector<uint8_t> back(cells.size());
            for (int i = 0; i < 50; ++i) {
                COptimalBiasDulo codec;
                codec.SetDebugLevel(2);
                codec.SetInflateWordSize(2);
                codec.Decompress(damaged.data(), damaged.size(), back.data(), back.size());
            }
        });
    for (std::thread& t : threads)
        t.join();
    EXPECT_TRUE(std::cout.flags() & std::ios::hex);
    std::cout << std::dec;
    std::istringstream lines(out.Text());
    size_t count = 0;
    for (std::string line; std::getline(lines, line); ++count)
        ASSERT_TRUE(line.rfind("DecmpSeg: LW.mode: ", 0) == 0 || line.rfind("DecmpSeg: expand to short", 0) == 0 ||
                    line.rfind("Error: deDULO corrupted data detected after decompress: ", 0) == 0)
            << line;
    EXPECT_GT(count, 200u);
}

TEST(Concurrency, CheckedExpansionsOnManyThreadsPrintNothing)
{
    const std::vector<uint8_t> cells = MakeShapeBytes(EShape::LOW_COUNTS, 4, 9000);
    const std::vector<uint8_t> good = Compressed(cells, 4);
    std::vector<uint8_t> damaged = good;
    damaged[damaged.size() - 20] ^= 0xFF;
    CCapturedStream out(std::cout);
    CCapturedStream err(std::cerr);
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&, t] {
            std::vector<uint8_t> back(cells.size());
            std::string error;
            for (int i = 0; i < 50; ++i) {
                const std::vector<uint8_t>& in = (i + t) % 2 ? good : damaged;
                const bool whole = ExpandStream(in.data(), in.size(), 4, back.data(), back.size(), error);
                if (&in == &good) {
                    EXPECT_TRUE(whole && back == cells) << error;
                }
            }
        });
    for (std::thread& t : threads)
        t.join();
    EXPECT_EQ(out.Text(), "");
    EXPECT_EQ(err.Text(), "");
}

} // namespace
