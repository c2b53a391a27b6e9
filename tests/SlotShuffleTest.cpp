// The forms of the slot spread and gather give the same bytes; the codec uses whichever the
// processor runs, so the portable ones are checked here beside the shuffling ones, against plain
// reading, on sparse, dense, empty and full blocks.
#include "SlotShuffle.h"

#include <gtest/gtest.h>

#include <random>
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

bool HasSsse3()
{
#ifdef MERTAX_HAVE_SSSE3_SHUFFLE
    return __builtin_cpu_supports("ssse3") && __builtin_cpu_supports("popcnt");
#else
    return false;
#endif
}

TEST(SlotShuffle, EverySpreadAgreesWithPlainReading)
{
    std::vector<SlotSpreadFn> forms = {SpreadSlotsPortable, SelectSlotSpread()};
#ifdef MERTAX_HAVE_SSSE3_SHUFFLE
    if (HasSsse3())
        forms.push_back(SpreadSlotsSsse3);
#endif
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

TEST(SlotShuffle, EveryGatherAgreesWithPlainReading)
{
    std::vector<SlotGatherFn> forms = {GatherSlotsPortable, SelectSlotGather()};
#ifdef MERTAX_HAVE_SSSE3_SHUFFLE
    if (HasSsse3())
        forms.push_back(GatherSlotsSsse3);
#endif
    for (const SBlock& block : RandomBlocks()) {
        std::vector<uint8_t> expected;
        for (unsigned slot = 0; slot < 64; ++slot)
            if ((block.bits >> slot) & 1)
                expected.push_back(block.bytes[slot]);
        for (size_t form = 0; form < forms.size(); ++form) {
            // Gathered after three bytes already there, which must stay.
            std::vector<uint8_t> out(3 + 64 + 16, 0xEE);
            const size_t put = forms[form](block.bits, block.bytes.data(), out.data() + 3);
            ASSERT_EQ(put, expected.size()) << "form " << form;
            ASSERT_EQ(std::vector<uint8_t>(out.begin() + 3, out.begin() + 3 + std::ptrdiff_t(put)), expected)
                << "form " << form << " bits " << block.bits;
            ASSERT_EQ(out[0] & out[1] & out[2], 0xEE) << "form " << form;
        }
    }
}

} // namespace
