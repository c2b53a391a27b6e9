// The coders' fast paths against their plain forms on the same inputs: the run-based map coder
// against slot by slot, the run-based nibble coder against nibble by nibble, and the stream
// reader's window against nibble-by-nibble reading. Inputs mix long runs, short
// runs and noise, so that every branch between the fast and the slow steps is taken.
#include "MapCoder.h"
#include "NibbleCoder.h"
#include "NonMatchReader.h"
#include "ReferenceCoders.h"

#include <gtest/gtest.h>

#include <random>
#include <vector>

namespace {

// Runs of repeats of random lengths (up to 300) and stretches of noise, from an alphabet of
// `alphabet` values.
std::vector<uint8_t> RunsAndNoise(std::mt19937_64& rng, size_t count, unsigned alphabet)
{
    std::vector<uint8_t> values;
    while (values.size() < count) {
        const uint8_t v = uint8_t(rng() % alphabet);
        const size_t length = rng() % 4 == 0 ? 1 + rng() % 300 : 1 + rng() % 3;
        values.insert(values.end(), std::min(length, count - values.size()), v);
    }
    return values;
}

TEST(FastPath, MapCoderAgreesWithSlotBySlot)
{
    std::mt19937_64 rng(21);
    for (int round = 0; round < 400; ++round) {
        const size_t slots = 1 + rng() % 16384;
        const std::vector<uint8_t> match = RunsAndNoise(rng, slots, 2);
        const size_t skipped = rng() % 3 == 0 ? rng() % 2000 : 0;
        CReferenceMapCoder plain;
        plain.First(match[0], skipped);
        for (size_t s = 1; s < slots; ++s)
            plain.Next(match[s]);
        plain.Finish();
        // The bits arrive in pieces of random sizes, as planes of any length hand them over.
        std::vector<uint64_t> words(slots / 64 + 3, ~uint64_t(0));
        CMatchBits bits(words.data());
        for (size_t s = 0; s < slots;) {
            const unsigned count = unsigned(std::min<size_t>(slots - s, 1 + rng() % 64));
            uint64_t piece = 0;
            for (unsigned k = 0; k < count; ++k)
                piece |= uint64_t(match[s + k]) << k;
            bits.Append(piece, count);
            s += count;
        }
        std::vector<uint8_t> map(20000);
        CMapCoder coder;
        const size_t size = coder.Code(words.data(), bits.Close(), skipped, map.data());
        ASSERT_EQ(size, plain.Map().size()) << "round " << round;
        const auto differ = std::mismatch(plain.Map().begin(), plain.Map().end(), map.begin());
        ASSERT_TRUE(differ.first == plain.Map().end())
            << "round " << round << ": entry " << differ.first - plain.Map().begin() << " is "
            << int(*differ.second) << ", not " << int(*differ.first);
        ASSERT_EQ(coder.RunTooLong(), plain.RunTooLong());
    }
}

TEST(FastPath, NibbleCoderAgreesWithNibbleByNibble)
{
    std::mt19937_64 rng(22);
    for (int round = 0; round < 600; ++round) {
        const uint8_t firstEscape = uint8_t(rng() % 16);
        CNibbleCoder coder(firstEscape);
        CReferenceNibbleCoder plain(firstEscape);
        uint8_t escape = firstEscape;
        for (int plane = 0, planes = 1 + int(rng() % 4); plane < planes; ++plane) {
            // Non-matches never equal their plane's escape.
            std::vector<uint8_t> nibbles = RunsAndNoise(rng, rng() % 2000, 2 + unsigned(rng() % 15));
            for (uint8_t& n : nibbles)
                n = n == escape ? uint8_t((n + 1) % 16) : n;
            for (uint8_t n : nibbles)
                plain.NonMatch(n, escape);
            plain.EndPlane(escape);
            // Whatever follows a plane's nibbles in the buffer must not count.
            std::fill_n(std::copy(nibbles.begin(), nibbles.end(), coder.PlaneNibbles()), 64, plain.LastNibble());
            coder.Plane(nibbles.size(), escape);
            escape = uint8_t(rng() % 16);
        }
        plain.Finish(escape);
        // A write limit short of the stream stores only that much but still counts it all.
        const size_t limit = rng() % 4 == 0 ? rng() % (plain.Stream().size() + 1) : 9000;
        std::vector<uint8_t> stream(9000, 0xEE);
        ASSERT_EQ(coder.Finish(escape, stream.data(), limit), plain.Stream().size()) << "round " << round;
        const size_t stored = std::min(limit, plain.Stream().size());
        ASSERT_TRUE(std::equal(plain.Stream().begin(), plain.Stream().begin() + std::ptrdiff_t(stored), stream.begin()))
            << "round " << round;
        ASSERT_EQ(stream[stored], 0xEE) << "round " << round;
    }
}

TEST(FastPath, StreamReaderWindowAgreesWithNibbleByNibble)
{
    std::mt19937_64 rng(23);
    for (int round = 0; round < 600; ++round) {
        // Few distinct nibbles, so that escapes and both run-length forms are frequent.
        const std::vector<uint8_t> nibbles = RunsAndNoise(rng, 2 * (1 + rng() % 1500), 1 + unsigned(rng() % 4));
        std::vector<uint8_t> stream(nibbles.size() / 2);
        for (size_t i = 0; i < stream.size(); ++i)
            stream[i] = uint8_t(nibbles[2 * i] << 4 | nibbles[2 * i + 1]);
        const uint8_t escape = uint8_t(rng() % 4);
        CNonMatchReader window(stream.data(), stream.size(), escape), single(stream.data(), stream.size(), escape);
        std::vector<uint8_t> taken(nibbles.size() * 255 + CNonMatchReader::OUTPUT_SLACK), expected;
        size_t done = 0;
        for (;;) {
            uint8_t nibble;
            if (!single.Next(escape, nibble))
                break;
            expected.push_back(nibble);
        }
        // Takes in pieces of random sizes as long as the plain reading got that far.
        while (done < expected.size()) {
            const size_t count = std::min<size_t>(expected.size() - done, 1 + rng() % 200);
            ASSERT_TRUE(window.Take(count, escape, taken.data() + done)) << "round " << round;
            done += count;
        }
        ASSERT_TRUE(std::equal(expected.begin(), expected.end(), taken.begin())) << "round " << round;
        uint8_t past[1 + CNonMatchReader::OUTPUT_SLACK];
        EXPECT_FALSE(window.Take(1, escape, past)) << "round " << round;
    }
}

} // namespace
