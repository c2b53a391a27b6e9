// The coders' fast paths against their plain forms on the same inputs: the map coder's block form
// (64 slots at a time) against slot by slot, the nibble coder's row form against nibble by nibble,
// and the stream reader's window against nibble-by-nibble reading. Inputs mix long runs, short
// runs and noise, so that every branch between the fast and the slow steps is taken.
#include "MapCoder.h"
#include "NibbleCoder.h"
#include "NonMatchReader.h"

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

TEST(FastPath, MapCoderBlocksAgreeWithSlotBySlot)
{
    std::mt19937_64 rng(21);
    for (int round = 0; round < 400; ++round) {
        const size_t slots = 1 + rng() % 9000;
        const std::vector<uint8_t> match = RunsAndNoise(rng, slots, 2);
        const size_t skipped = rng() % 3 == 0 ? rng() % 2000 : 0;
        std::vector<uint8_t> blocks(20000), single(20000);
        CMapCoder fast(blocks.data()), plain(single.data());
        fast.First(match[0], skipped);
        plain.First(match[0], skipped);
        for (size_t s = 1; s < slots; ++s)
            plain.Next(match[s]);
        for (size_t s = 1; s < slots;) {
            const unsigned count = unsigned(std::min<size_t>(slots - s, 1 + rng() % 64));
            uint64_t bits = 0;
            for (unsigned k = 0; k < count; ++k)
                bits |= uint64_t(match[s + k]) << k;
            fast.NextSlots(bits, count);
            s += count;
        }
        fast.Finish();
        plain.Finish();
        ASSERT_EQ(fast.Size(), plain.Size()) << "round " << round;
        ASSERT_TRUE(std::equal(single.begin(), single.begin() + std::ptrdiff_t(plain.Size()), blocks.begin()))
            << "round " << round;
        ASSERT_EQ(fast.RunTooLong(), plain.RunTooLong());
    }
}

TEST(FastPath, NibbleCoderRowsAgreeWithNibbleByNibble)
{
    std::mt19937_64 rng(22);
    for (int round = 0; round < 600; ++round) {
        const uint8_t firstEscape = uint8_t(rng() % 16);
        std::vector<uint8_t> rows(9000, 0xEE), single(9000, 0xEE);
        CNibbleCoder fast(rows.data(), rows.size() - 8, firstEscape), plain(single.data(), single.size() - 8, firstEscape);
        uint8_t escape = firstEscape;
        for (int plane = 0, planes = 1 + int(rng() % 4); plane < planes; ++plane) {
            // Non-matches never equal their plane's escape.
            std::vector<uint8_t> nibbles = RunsAndNoise(rng, rng() % 2000, 2 + unsigned(rng() % 15));
            for (uint8_t& n : nibbles)
                n = n == escape ? uint8_t((n + 1) % 16) : n;
            fast.NonMatches(nibbles.data(), nibbles.size(), escape);
            for (uint8_t n : nibbles)
                plain.NonMatch(n, escape);
            fast.EndPlane(escape);
            plain.EndPlane(escape);
            escape = uint8_t(rng() % 16);
        }
        fast.Finish(escape);
        plain.Finish(escape);
        ASSERT_EQ(fast.Size(), plain.Size()) << "round " << round;
        ASSERT_TRUE(std::equal(single.begin(), single.begin() + std::ptrdiff_t(plain.Size()), rows.begin()))
            << "round " << round;
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
        std::vector<uint8_t> taken(nibbles.size() * 255 + 16), expected;
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
        uint8_t past[17];
        EXPECT_FALSE(window.Take(1, escape, past)) << "round " << round;
    }
}

} // namespace
