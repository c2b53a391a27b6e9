// The forms of the codec's vector kernels give the same bytes; the codec uses whichever the
// processor runs, so every kernel set it runs is checked here against plain reading: the slot
// spread and classify on sparse, dense, empty and full blocks, the passes over the cells, and the
// stream reader's spread of sixteen nibbles.
#include "ByteAccess.h"
#include "KernelDispatch.h"
#include "NonMatchReader.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <string>
#include <vector>

namespace {

struct SBlock
{
    uint64_t bits;
    std::vector<uint8_t> bytes; // 64 slots or values, and 16 bytes of room
};

std::vector<SBlock> RandomBlocks()
{
    std::mt19937_64 rng(5);
    std::vector<SBlock> blocks;
    for (int round = 0; round < 3000; ++round) {
        uint64_t bits = rng();
        switch (round % 5) {
        case 0: bits &= rng() & rng(); break;
        case 1: bits |= rng() | rng(); break;
        case 2: bits = round % 2 ? 0 : ~uint64_t(0); break;
        default: break;
        }
        SBlock block{bits, std::vector<uint8_t>(64 + 16)};
        for (uint8_t& b : block.bytes)
            b = uint8_t(rng() % 16);
        blocks.push_back(block);
    }
    return blocks;
}

TEST(SlotShuffle, EverySpreadAgreesWithPlainReading)
{
    std::vector<SlotSpreadFn> forms;
    for (EKernelSet set : SupportedKernelSets())
        forms.push_back(KernelsOf(set).spread);
    for (const SBlock& block : RandomBlocks()) {
        const uint8_t fill = uint8_t(block.bits % 16);
        std::vector<uint8_t> expected(64, fill);
        size_t taken = 0;
        for (unsigned slot = 0; slot < 64; ++slot)
            if ((block.bits >> slot) & 1)
                expected[slot] = block.bytes[taken++];
        for (size_t form = 0; form < forms.size(); ++form) {
            std::vector<uint8_t> out(64, 0xEE);
            ASSERT_EQ(forms[form](block.bits, block.bytes.data(), fill, out.data()), taken) << "form " << form;
            ASSERT_EQ(out, expected) << "form " << form << " bits " << block.bits;
        }
    }
}

TEST(SlotShuffle, EveryClassifyAgreesWithPlainReading)
{
    std::mt19937_64 otherHalves(11);
    const std::vector<SBlock> blocks = RandomBlocks();
    for (EKernelSet set : SupportedKernelSets()) {
        const SlotClassifyFn classify = KernelsOf(set).classify;
        for (const bool high : {false, true}) {
            // One to three blocks a call, each call's nibbles put after those of the calls before
            // and after three bytes already there, which must stay (the kernels may write 64 bytes
            // past their last nibble). The tested halves hold nibbles, each block's bits choosing
            // which equal the call's; the other halves hold noise, which must not count.
            std::vector<uint8_t> out(3 + 64 * blocks.size() + 64, 0xEE), expected;
            std::vector<uint64_t> matches(blocks.size()), expectedMatches;
            size_t put = 0;
            for (size_t b = 0, step = 1; b < blocks.size(); b += step, step = step % 3 + 1) {
                const size_t count = std::min(step, blocks.size() - b);
                const uint8_t nibble = uint8_t(blocks[b].bits >> 60);
                std::vector<uint8_t> bytes;
                for (size_t k = b; k < b + count; ++k) {
                    expectedMatches.push_back(0);
                    for (unsigned slot = 0; slot < 64; ++slot) {
                        const uint8_t slotNibble = (blocks[k].bits >> slot) & 1 ? nibble : blocks[k].bytes[slot];
                        const uint8_t other = uint8_t(otherHalves() & 0xF);
                        bytes.push_back(high ? uint8_t(slotNibble << 4 | other) : uint8_t(other << 4 | slotNibble));
                        if (slotNibble == nibble)
                            expectedMatches.back() |= uint64_t(1) << slot;
                        else
                            expected.push_back(slotNibble);
                    }
                }
                put += classify(bytes.data(), count, high, nibble, out.data() + 3 + put, matches.data() + b);
            }
            SCOPED_TRACE(std::string(KernelsOf(set).name) + (high ? ", high halves" : ", low halves"));
            ASSERT_EQ(matches, expectedMatches);
            ASSERT_EQ(put, expected.size());
            ASSERT_EQ(std::vector<uint8_t>(out.begin() + 3, out.begin() + 3 + std::ptrdiff_t(put)), expected);
            ASSERT_EQ(out[0] & out[1] & out[2], 0xEE);
        }
    }
}

TEST(CellPasses, EverySetAgreesWithPlainReading)
{
    std::mt19937_64 rng(13);
    std::vector<uint8_t> cells(8192 + 64);
    for (EKernelSet set : SupportedKernelSets()) {
        const CCellKernels& passes = KernelsOf(set).cells;
        SCOPED_TRACE(KernelsOf(set).name);
        for (int round = 0; round < 400; ++round) {
            // Words equal to a pattern but one, mostly among the last sixteen (where the vector
            // steps end), which differs in one bit, and noise past the end: a word left out or
            // one read past the end changes the OR.
            const uint64_t pattern = rng() % 4 ? rng() : 0;
            const size_t words = round < 40 ? size_t(round / 2) : rng() % 1025;
            const size_t odd = words == 0   ? 0
                               : rng() % 2 ? words - 1 - rng() % std::min<size_t>(words, 16)
                                           : rng() % words;
            const uint64_t bit = uint64_t(1) << rng() % 64;
            for (size_t w = 0; w < cells.size() / 8; ++w) {
                const uint64_t word = w >= words ? rng() : w == odd ? pattern ^ bit : pattern;
                std::memcpy(cells.data() + 8 * w, &word, 8);
            }
            ASSERT_EQ(passes.orOfWords(cells.data(), words, pattern), words == 0 ? 0 : bit) << words << " words";

            const size_t cellBytes = size_t(2) << rng() % 3, blocks = rng() % (8192 / 64 / cellBytes + 1);
            const unsigned byte = unsigned(rng() % cellBytes);
            std::vector<uint8_t> row(64 * blocks + 1, 0xEE);
            passes.byteRow(cells.data(), cellBytes, byte, blocks, row.data());
            for (size_t i = 0; i < 64 * blocks; ++i)
                ASSERT_EQ(row[i], cells[i * cellBytes + byte])
                    << cellBytes << "-byte cells, byte " << byte << ", cell " << i;
            ASSERT_EQ(row.back(), 0xEE);
        }
    }
}

TEST(SlotShuffle, NibbleSplitAgreesWithPlainReading)
{
    std::mt19937_64 rng(9);
    for (size_t bytes = 0; bytes < 70; ++bytes) {
        std::vector<uint8_t> stream(bytes);
        for (uint8_t& b : stream)
            b = uint8_t(rng());
        std::vector<uint8_t> expected;
        for (uint8_t b : stream) {
            expected.push_back(b >> 4);
            expected.push_back(b & 0xF);
        }
        std::vector<uint8_t> split(2 * bytes + 32, 0xEE);
        CNonMatchReader::SplitNibbles(stream.data(), bytes, split.data());
        ASSERT_TRUE(std::equal(expected.begin(), expected.end(), split.begin())) << bytes << " bytes";
        ASSERT_EQ(split[2 * bytes], 0xEE) << bytes << " bytes";
    }
}

} // namespace

namespace {

// Each kernel set is the functions of its own name: a set that silently ran another's kernels
// would make every comparison above compare a form with itself.
TEST(KernelDispatch, EachSetRunsItsOwnKernels)
{
    struct Expected
    {
        EKernelSet set;
        const char* name;
        SlotSpreadFn spread;
        SlotClassifyFn classify;
        CCellKernels cells;
        MapGroupsFn mapGroups;
        CNibbleKernels nibbles;
    } expected[] = {
        {EKernelSet::PORTABLE, "portable", SpreadSlotsPortable, ClassifySlotsPortable,
         {OrOfWordsPortable, ByteRowPortable}, nullptr, {MarkRepeatsPortable, PackNibblesPortable, nullptr}},
#ifdef MERTAX_HAVE_X86_KERNELS
        {EKernelSet::SSSE3, "ssse3", SpreadSlotsSsse3, ClassifySlotsSsse3, {OrOfWordsPortable, ByteRowPortable},
         nullptr, {MarkRepeatsPortable, PackNibblesPortable, nullptr}},
        {EKernelSet::AVX2, "avx2", SpreadSlotsSsse3, ClassifySlotsSsse3, {OrOfWordsAvx2, ByteRowAvx2},
         CodeMapGroupsAvx2, {MarkRepeatsAvx2, PackNibblesAvx2, nullptr}},
        {EKernelSet::AVX512, "avx512", SpreadSlotsAvx512, ClassifySlotsAvx512, {OrOfWordsAvx512, ByteRowAvx512},
         CodeMapGroupsAvx512, {MarkRepeatsAvx512, PackNibblesAvx512, CodeRunWindowsAvx512}},
#endif
#ifdef MERTAX_HAVE_NEON_KERNELS
        {EKernelSet::NEON, "neon", SpreadSlotsNeon, ClassifySlotsNeon, {OrOfWordsPortable, ByteRowPortable}, nullptr,
         {MarkRepeatsNeon, PackNibblesNeon, nullptr}},
#endif
    };
    for (const Expected& e : expected) {
        SCOPED_TRACE(e.name);
        const CKernels& kernels = KernelsOf(e.set);
        EXPECT_STREQ(kernels.name, e.name);
        EXPECT_EQ(kernels.spread, e.spread);
        EXPECT_EQ(kernels.classify, e.classify);
        EXPECT_EQ(kernels.cells.orOfWords, e.cells.orOfWords);
        EXPECT_EQ(kernels.cells.byteRow, e.cells.byteRow);
        EXPECT_EQ(kernels.mapGroups, e.mapGroups);
        EXPECT_EQ(kernels.nibbles.markRepeats, e.nibbles.markRepeats);
        EXPECT_EQ(kernels.nibbles.pack, e.nibbles.pack);
        EXPECT_EQ(kernels.nibbles.codeRunWindows, e.nibbles.codeRunWindows);
        const bool supported = std::find(SupportedKernelSets().begin(), SupportedKernelSets().end(), e.set) !=
                               SupportedKernelSets().end();
        EXPECT_EQ(UseKernelSet(e.set), supported);
        if (supported) {
            EXPECT_EQ(&ActiveKernels(), &kernels);
        }
    }
}

// A set of another architecture is never taken, and asking for it changes nothing.
TEST(KernelDispatch, ASetOfAnotherArchitectureIsRefused)
{
#ifdef MERTAX_HAVE_NEON_KERNELS
    const EKernelSet foreign[] = {EKernelSet::SSSE3, EKernelSet::AVX2, EKernelSet::AVX512};
#else
    const EKernelSet foreign[] = {EKernelSet::NEON};
#endif
    const CKernels* before = &ActiveKernels();
    for (EKernelSet set : foreign) {
        EXPECT_FALSE(UseKernelSet(set));
        EXPECT_EQ(&ActiveKernels(), before);
    }
}

// Runs in a process of its own (each test does): the first use picks the default.
TEST(KernelDispatch, TheDefaultIsTheWidestSetTheProcessorRuns)
{
    EKernelSet widest = EKernelSet::PORTABLE;
#ifdef MERTAX_HAVE_X86_KERNELS
    __builtin_cpu_init();
    if (__builtin_cpu_supports("ssse3") && __builtin_cpu_supports("popcnt"))
        widest = EKernelSet::SSSE3;
    if (__builtin_cpu_supports("avx2") && __builtin_cpu_supports("bmi"))
        widest = EKernelSet::AVX2;
    if (__builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512bw") &&
        __builtin_cpu_supports("avx512vbmi") && __builtin_cpu_supports("avx512vbmi2") &&
        __builtin_cpu_supports("bmi2"))
        widest = EKernelSet::AVX512;
#endif
#ifdef MERTAX_HAVE_NEON_KERNELS
    widest = EKernelSet::NEON;
#endif
    EXPECT_EQ(SupportedKernelSets().back(), widest);
    EXPECT_EQ(SupportedKernelSets().front(), EKernelSet::PORTABLE);
    EXPECT_EQ(&ActiveKernels(), &KernelsOf(widest));
}

} // namespace
