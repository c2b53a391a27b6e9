// The two forms of the slot spread give the same bytes; the decoder uses whichever the processor
// runs, so the portable one is checked here against the shuffling one and against plain reading.
#include "SlotSpread.h"

#include <gtest/gtest.h>

#include <random>
#include <vector>

namespace {

std::vector<uint8_t> SpreadByHand(uint64_t bits, const uint8_t* pValues, uint8_t fill)
{
    std::vector<uint8_t> out(64, fill);
    size_t taken = 0;
    for (unsigned slot = 0; slot < 64; ++slot)
        if ((bits >> slot) & 1)
            out[slot] = pValues[taken++];
    return out;
}

TEST(SlotSpread, EveryFormAgreesWithPlainReading)
{
    std::vector<SlotSpreadFn> forms = {SpreadSlotsPortable, SelectSlotSpread()};
#ifdef MERTAX_HAVE_SSSE3_SPREAD
    if (__builtin_cpu_supports("ssse3") && __builtin_cpu_supports("popcnt"))
        forms.push_back(SpreadSlotsSsse3);
#endif
    std::mt19937_64 rng(5);
    std::vector<uint8_t> values(64 + 16);
    for (int round = 0; round < 3000; ++round) {
        // Sparse, dense, empty and full blocks alike.
        uint64_t bits = rng();
        switch (round % 5) {
        case 0: bits &= rng() & rng(); break;
        case 1: bits |= rng() | rng(); break;
        case 2: bits = round % 2 ? 0 : ~uint64_t(0); break;
        default: break;
        }
        for (uint8_t& v : values)
            v = uint8_t(rng() % 16);
        const uint8_t fill = uint8_t(rng() % 16);
        const std::vector<uint8_t> expected = SpreadByHand(bits, values.data(), fill);
        for (size_t form = 0; form < forms.size(); ++form) {
            std::vector<uint8_t> out(64, 0xEE);
            const size_t taken = forms[form](bits, values.data(), fill, out.data());
            ASSERT_EQ(out, expected) << "form " << form << " round " << round;
            ASSERT_EQ(taken, size_t(__builtin_popcountll(bits))) << "form " << form;
        }
    }
}

} // namespace
