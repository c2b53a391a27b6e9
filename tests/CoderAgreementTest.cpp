// The coders' run-based fast paths against their plain slot-by-slot forms (ReferenceCoders.h),
// first on random mixes of long runs, short runs and noise, then with the format's boundaries
// placed at the start, in the middle and at the end of a segment's slots and across a plane's
// end: match runs either side of the map entry limits (6 slots of a bit-mask entry, 63/64 and
// 95/96 of the short and medium skips, 8287 of the long one), non-match runs either side of the
// run entry's 63, nibble runs either side of the stream's short (15) and byte (255) run lengths
// and a run length equal to the escape. What the coders write must also read back.
#include "KernelDispatch.h"
#include "MapCoder.h"
#include "NibbleCoder.h"
#include "NonMatchMask.h"
#include "NonMatchReader.h"
#include "ReferenceCoders.h"

#include <gtest/gtest.h>

#include <random>
#include <vector>

namespace {

constexpr size_t SLOTS = 16384; // the largest segment: 8192 bytes, two planes per byte
constexpr size_t PLANE = 4096;  // planes of 16-bit cells in a 4096-byte segment

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

// Codes `match` (1 = the slot matches) after `skipped` matching slots with both map coders; the
// bits reach the fast one in pieces of `piece()` bits, as planes of any length hand them over.
template <typename Piece>
void ExpectMapCodersAgree(const std::vector<uint8_t>& match, size_t skipped, Piece piece, const std::string& what)
{
    ASSERT_LE(skipped + match.size(), SLOTS);
    CReferenceMapCoder plain;
    plain.First(match[0], skipped);
    for (size_t s = 1; s < match.size(); ++s)
        plain.Next(match[s]);
    plain.Finish();

    // What lies past the bits must not count.
    std::vector<uint64_t> words(match.size() / 64 + 1 + CMatchBits::WORDS_PAST_LAST, ~uint64_t(0));
    CMatchBits bits(words.data());
    for (size_t s = 0; s < match.size();) {
        const unsigned count = unsigned(std::min<size_t>(match.size() - s, piece()));
        uint64_t bitsOfPiece = 0;
        for (unsigned k = 0; k < count; ++k)
            bitsOfPiece |= uint64_t(match[s + k]) << k;
        bits.Append(bitsOfPiece, count);
        s += count;
    }
    const size_t slots = bits.Close();
    // Every kernel set's coder by name, the vector step where the set has one.
    std::vector<uint8_t> map;
    for (EKernelSet set : SupportedKernelSets()) {
        map.assign(2 * SLOTS, 0);
        CMapCoder coder(KernelsOf(set).mapGroups);
        map.resize(coder.Code(words.data(), slots, skipped, map.data()));
        ASSERT_EQ(map, plain.Map()) << what << ", " << KernelsOf(set).name;
        ASSERT_EQ(coder.RunTooLong(), plain.RunTooLong()) << what;
    }
    if (plain.RunTooLong())
        return; // a skip longer than the format holds: the encoder stores such a segment raw
    // The map reads back to the same slots (a match bit is 0, as the decoder keeps them).
    CNonMatchMask mask;
    ASSERT_TRUE(mask.Decode(map.data(), map.data() + map.size(), skipped + match.size())) << what;
    for (size_t s = 0; s < match.size(); ++s)
        ASSERT_EQ((mask.BitsAt(skipped + s) & 1) == 0, bool(match[s])) << what << ", slot " << s;
    ASSERT_EQ(mask.BitsAt(skipped + match.size()), 0u) << what << ": bits past the last slot";
}

// Codes planes of non-match nibbles with the reference coder and with every kernel set's fast one,
// storing at most `limit` bytes, and reads the stream back.
void ExpectNibbleCodersAgree(const std::vector<std::vector<uint8_t>>& planes, const std::vector<uint8_t>& escapes,
                             const std::string& what, size_t limit = 3 * SLOTS)
{
    CReferenceNibbleCoder plain(escapes[0]);
    std::vector<uint8_t> lastLiterals; // what follows each plane's nibbles in the fast coder's buffer
    for (size_t p = 0; p < planes.size(); ++p) {
        for (uint8_t n : planes[p])
            plain.NonMatch(n, escapes[p]);
        plain.EndPlane(escapes[p]);
        lastLiterals.push_back(plain.LastNibble());
    }
    plain.Finish(escapes.back());
    const size_t stored = std::min(limit, plain.Stream().size());
    std::vector<uint8_t> stream;
    for (EKernelSet set : SupportedKernelSets()) {
        CNibbleCoder coder(escapes[0], KernelsOf(set).nibbles);
        for (size_t p = 0; p < planes.size(); ++p) {
            // Whatever follows a plane's nibbles in the buffer must not count.
            std::fill_n(std::copy(planes[p].begin(), planes[p].end(), coder.PlaneNibbles()), 64, lastLiterals[p]);
            coder.Plane(planes[p].size(), escapes[p]);
        }
        // A write limit short of the stream stores only that much but still counts it all.
        stream.assign(3 * SLOTS + 1, 0xEE);
        ASSERT_EQ(coder.Finish(escapes.back(), stream.data(), limit), plain.Stream().size()) << what;
        ASSERT_TRUE(std::equal(plain.Stream().begin(), plain.Stream().begin() + std::ptrdiff_t(stored), stream.begin()))
            << what << ", " << KernelsOf(set).name;
        ASSERT_EQ(stream[stored], 0xEE) << what;
    }
    if (stored < plain.Stream().size())
        return;

    CNonMatchReader reader(stream.data(), stored, escapes[0]);
    for (size_t p = 0; p < planes.size(); ++p)
        for (size_t i = 0; i < planes[p].size(); ++i) {
            uint8_t nibble = 0xFF;
            ASSERT_TRUE(reader.Next(escapes[p], nibble)) << what << ", plane " << p << " nibble " << i;
            ASSERT_EQ(nibble, planes[p][i]) << what << ", plane " << p << " nibble " << i;
        }
}

TEST(FastPath, MapCoderAgreesWithSlotBySlot)
{
    std::mt19937_64 rng(21);
    for (int round = 0; round < 400; ++round) {
        const size_t slots = 1 + rng() % SLOTS;
        const size_t skipped = rng() % 3 == 0 ? rng() % (SLOTS - slots + 1) : 0;
        ExpectMapCodersAgree(RunsAndNoise(rng, slots, 2), skipped, [&] { return 1 + rng() % 64; },
                             "round " + std::to_string(round));
    }
}

// Noise at densities from sparse to dense matches: long stretches of groups for the vector step,
// broken by groups of six matches and by stretches of all-zero groups around its limit of ten.
TEST(FastPath, MapCoderAgreesOnNoise)
{
    std::mt19937_64 rng(33);
    for (unsigned percent : {3, 10, 30, 50, 70, 90}) {
        for (int round = 0; round < 12; ++round) {
            std::vector<uint8_t> match(2 * PLANE + rng() % PLANE);
            for (uint8_t& m : match)
                m = rng() % 100 < percent;
            // All-zero stretches of 10, 11 and 12 groups, on and off the six-slot grid.
            const size_t at = rng() % (match.size() - 80);
            std::fill_n(match.begin() + std::ptrdiff_t(at), 60 + rng() % 13, 0);
            ExpectMapCodersAgree(match, round % 3 == 0 ? 1 + rng() % 9 : 0, [&] { return 1 + rng() % 64; },
                                 std::to_string(percent) + "% matches, round " + std::to_string(round));
        }
    }
}

size_t WholeWords() { return 64; }

// Groups for the vector step up to the map's end, over any number of its steps, then a partial
// group of matches, which only the scalar coder may take (as a run that no non-match ends).
TEST(FastPath, MapCoderAgreesWhereGroupsReachTheMapEnd)
{
    std::mt19937_64 rng(34);
    for (size_t groups = 0; groups <= 140; ++groups)
        for (size_t tail = groups == 0 ? 1 : 0; tail < 6; ++tail) {
            std::vector<uint8_t> match;
            for (size_t g = 0; g < groups; ++g) {
                const unsigned bits = 1 + unsigned(rng() % 62); // neither all-zero nor six matches
                for (unsigned k = 0; k < 6; ++k)
                    match.push_back(bits >> k & 1);
            }
            match.insert(match.end(), tail, 1);
            ExpectMapCodersAgree(match, 0, WholeWords,
                                 std::to_string(groups) + " groups, " + std::to_string(tail) + " after");
        }
}

// A grid step that codes less than it could still gives the scalar coder's map, only slower: each
// set's step takes its whole width of noisy groups in one call, and whole groups up to the end.
TEST(FastPath, GridStepTakesItsWholeWidth)
{
    std::vector<uint64_t> words(16 + CMatchBits::WORDS_PAST_LAST);
    CMatchBits bits(words.data());
    std::mt19937_64 rng(35);
    for (int group = 0; group < 160; ++group)
        bits.Append(1 + rng() % 62, 6); // neither all-zero nor six matches
    const size_t slots = bits.Close();
    for (EKernelSet set : SupportedKernelSets()) {
        const MapGroupsFn step = KernelsOf(set).mapGroups;
        if (step == nullptr)
            continue;
        const size_t width = set == EKernelSet::AVX2 ? 32 : 64;
        uint8_t map[64];
        uint8_t* pOut = map;
        EXPECT_EQ(step(words.data(), 6, slots, pOut), 6 * width) << KernelsOf(set).name;
        EXPECT_EQ(size_t(pOut - map), width) << KernelsOf(set).name; // an entry per group
        pOut = map;
        EXPECT_EQ(step(words.data(), slots - 30, slots - 3, pOut), 24u) << KernelsOf(set).name;
    }
}

TEST(FastPath, NibbleCoderAgreesWithNibbleByNibble)
{
    std::mt19937_64 rng(22);
    for (int round = 0; round < 600; ++round) {
        std::vector<std::vector<uint8_t>> planes(1 + rng() % 4);
        std::vector<uint8_t> escapes;
        size_t nibbles = 0;
        for (auto& plane : planes) {
            escapes.push_back(uint8_t(rng() % 16));
            plane = RunsAndNoise(rng, rng() % 2000, 2 + unsigned(rng() % 15));
            for (uint8_t& n : plane) // non-matches never equal their plane's escape
                n = n == escapes.back() ? uint8_t((n + 1) % 16) : n;
            nibbles += plane.size();
        }
        const size_t limit = rng() % 4 == 0 ? rng() % (nibbles / 2 + 1) : 3 * SLOTS;
        ExpectNibbleCodersAgree(planes, escapes, "round " + std::to_string(round), limit);
    }
}

// A plane that opens with the previous plane's last literal first lengthens that run; the runs
// after such a lead are found from where it ends, on either side of a 64-slot word.
TEST(FastPath, NibbleCoderRunsAfterAPlaneOpeningWithTheOpenRun)
{
    for (size_t lead : {1, 2, 3, 60, 61, 62, 63, 64, 65, 125, 126, 254, 255, 256})
        for (size_t gap : {0, 1, 2, 3, 70}) {
            std::vector<uint8_t> second(lead, 7);
            for (size_t k = 0; k < gap; ++k)
                second.push_back(uint8_t(4 + k % 2));
            second.insert(second.end(), 5, 9);
            second.insert(second.end(), {2, 3, 4});
            ExpectNibbleCodersAgree({{1, 2, 3, 7}, second}, {0, 0},
                                    "lead " + std::to_string(lead) + " gap " + std::to_string(gap));
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
        for (uint8_t nibble; single.Next(escape, nibble);)
            expected.push_back(nibble);
        // Takes in pieces of random sizes as long as the plain reading got that far.
        for (size_t done = 0, count; done < expected.size(); done += count) {
            count = std::min<size_t>(expected.size() - done, 1 + rng() % 200);
            ASSERT_TRUE(window.Take(count, escape, taken.data() + done)) << "round " << round;
        }
        ASSERT_TRUE(std::equal(expected.begin(), expected.end(), taken.begin())) << "round " << round;
        uint8_t past[1 + CNonMatchReader::OUTPUT_SLACK];
        EXPECT_FALSE(window.Take(1, escape, past)) << "round " << round;
    }
}

// Run codes in the stream's last nibbles, where the window reader checks every bound, taken in
// two pieces split at every slot, the second starting with the run's repeats.
TEST(FastPath, StreamReaderWindowAgreesOnRunsAtTheStreamEnd)
{
    const uint8_t escape = 6;
    for (const std::vector<uint8_t>& head : {std::vector<uint8_t>{1, 2, 5}, {1, 2, 3, 5}})
        for (const std::vector<uint8_t>& code : {std::vector<uint8_t>{6, 2}, {6, 9}, {6, 15}, {6, 6, 1, 2}}) {
            std::vector<uint8_t> nibbles = head;
            nibbles.insert(nibbles.end(), code.begin(), code.end());
            nibbles.resize((nibbles.size() + 1) / 2 * 2); // whole bytes
            std::vector<uint8_t> stream(nibbles.size() / 2);
            for (size_t i = 0; i < stream.size(); ++i)
                stream[i] = uint8_t(nibbles[2 * i] << 4 | nibbles[2 * i + 1]);
            CNonMatchReader single(stream.data(), stream.size(), escape);
            std::vector<uint8_t> expected;
            for (uint8_t nibble; single.Next(escape, nibble);)
                expected.push_back(nibble);
            for (size_t split = 1; split < expected.size(); ++split) {
                CNonMatchReader window(stream.data(), stream.size(), escape);
                std::vector<uint8_t> taken(expected.size() + 2 * CNonMatchReader::OUTPUT_SLACK);
                ASSERT_TRUE(window.Take(split, escape, taken.data()));
                ASSERT_TRUE(window.Take(expected.size() - split, escape, taken.data() + split));
                ASSERT_TRUE(std::equal(expected.begin(), expected.end(), taken.begin())) << "split at " << split;
                EXPECT_FALSE(window.Take(1, escape, taken.data())) << "split at " << split;
            }
        }
}

// Where a run of `length` goes among `slots` slots: at the start, in the middle, ending the
// segment, ended by the segment's last slot, and across the end of the first plane.
std::vector<size_t> Placements(size_t length, size_t slots)
{
    std::vector<size_t> at = {0, slots / 2 - length / 2, slots - length, slots - length - 1};
    if (length < PLANE)
        at.push_back(PLANE - length / 2); // across the end of the first plane
    return at;
}

TEST(Boundaries, MatchRunsAroundEveryMapEntryLimit)
{
    for (size_t length : {5, 6, 7, 63, 64, 65, 95, 96, 97, 8287, 8288, 8289}) {
        // The third count starts the run ended by the last slot on a group boundary, so that all
        // of it is coded as one run.
        for (size_t slots : {size_t(2 * PLANE), SLOTS, 4200 + length + 1}) {
            if (length > slots || slots > SLOTS)
                continue;
            for (size_t at : Placements(length, slots)) {
                // Non-matches around the run, and bit-mask groups that are not all zero before it.
                std::vector<uint8_t> match(slots, 0);
                for (size_t s = 0; s < at; ++s)
                    match[s] = (at - s) % 3 == 0;
                std::fill_n(match.begin() + std::ptrdiff_t(at), length, 1);
                // Leading planes that are not coded count as matches before the first slot.
                for (size_t skipped : {size_t(0), size_t(1), size_t(3)})
                    ExpectMapCodersAgree(std::vector<uint8_t>(match.begin() + std::ptrdiff_t(skipped), match.end()),
                                         skipped, WholeWords,
                                         "run of " + std::to_string(length) + " at " + std::to_string(at) + " of " +
                                             std::to_string(slots) + ", " + std::to_string(skipped) + " skipped");
            }
        }
    }
}

TEST(Boundaries, NonMatchRunsAroundTheRunEntryLimit)
{
    // Entries of exactly 64 slots (63 matches and a non-match) up to the map's last byte.
    for (size_t runs : {1, 2, 5}) {
        std::vector<uint8_t> match;
        for (size_t r = 0; r < runs; ++r) {
            match.insert(match.end(), 63, 1);
            match.push_back(0);
        }
        ExpectMapCodersAgree(match, 0, WholeWords, std::to_string(runs) + " runs of 63 and a non-match");
        // The closing empty group the coder adds is not needed to read them.
        const std::vector<uint8_t> bare(runs, 0xBF);
        EXPECT_TRUE(CNonMatchMask().Decode(bare.data(), bare.data() + runs, 64 * runs)) << runs << " runs";
    }

    for (size_t length : {5, 6, 7, 62, 63, 64, 65, 127, 128}) {
        for (size_t at : Placements(length, 2 * PLANE)) {
            std::vector<uint8_t> match(2 * PLANE, 1);
            std::fill_n(match.begin() + std::ptrdiff_t(at), length, 0);
            ExpectMapCodersAgree(match, 0, WholeWords,
                                 "non-matches " + std::to_string(length) + " at " + std::to_string(at));
        }
    }
}

TEST(Boundaries, NibbleRunsAroundTheShortAndByteRunLengths)
{
    // Around the window kernel's 64 slots too: a run that fills a window, and one that is longer.
    for (size_t length : {1, 2, 3, 4, 14, 15, 16, 17, 63, 64, 65, 254, 255, 256, 257, 600}) {
        for (uint8_t escape : {uint8_t(0), uint8_t(3), uint8_t(15)}) {
            const uint8_t value = uint8_t((escape + 5) % 16);
            for (size_t at : {size_t(0), size_t(1), size_t(500), size_t(1000 - length % 1000)}) {
                // Literals that never equal the escape, alone (coded run by run) or in runs of
                // three (dense enough for the window kernel), with the run inside them.
                for (size_t spread : {1, 3}) {
                    std::vector<uint8_t> plane(1000 + length);
                    for (size_t i = 0; i < plane.size(); ++i)
                        plane[i] = uint8_t((escape + 1 + (i / spread * 7) % 15) % 16);
                    std::fill_n(plane.begin() + std::ptrdiff_t(at), length, value);
                    ExpectNibbleCodersAgree({plane}, {escape},
                                            "run of " + std::to_string(length) + " at " + std::to_string(at) +
                                                ", escape " + std::to_string(escape) + ", literals " +
                                                std::to_string(spread) + " in a row");
                }
            }
        }
    }
}

TEST(Boundaries, RunLengthsEqualToTheEscapeAndRunsAcrossPlanes)
{
    for (uint8_t escape = 2; escape < 16; ++escape) {
        // A run whose short length would be the escape nibble itself must take the byte form.
        const uint8_t value = uint8_t(escape == 1 ? 2 : 1);
        std::vector<uint8_t> plane(escape, value);
        plane.push_back(uint8_t((value + 1) % 16 == escape ? (value + 2) % 16 : (value + 1) % 16));
        ExpectNibbleCodersAgree({plane}, {escape}, "run equal to escape " + std::to_string(escape));
        // Runs of every length from 1 to 20 in turn, dense enough for the window kernel.
        std::vector<uint8_t> runs;
        for (size_t length = 1; length <= 20; ++length)
            runs.insert(runs.end(), length, uint8_t((escape + 1 + length % 2) % 16));
        ExpectNibbleCodersAgree({runs}, {escape}, "runs of 1 to 20, escape " + std::to_string(escape));
    }
    // A run that reaches the end of one plane goes on in the next, whose escape differs.
    for (size_t head : {1, 2, 15, 16, 255, 256}) {
        for (size_t tail : {1, 2, 14, 200}) {
            const std::vector<uint8_t> first(head, 9), second(tail, 9);
            ExpectNibbleCodersAgree({first, second}, {4, 7},
                                    "run of " + std::to_string(head) + " + " + std::to_string(tail) + " across planes");
        }
    }
}

} // namespace
