#include "SlotSpread.h"

#include <array>
#include <cstring>

#ifdef MERTAX_HAVE_SSSE3_SPREAD
#include <immintrin.h>
#endif

size_t SpreadSlotsPortable(uint64_t bits, const uint8_t* pValues, uint8_t fill, uint8_t* pOut)
{
    std::memset(pOut, fill, 64);
    size_t taken = 0;
    for (; bits != 0; bits &= bits - 1)
        pOut[__builtin_ctzll(bits)] = pValues[taken++];
    return taken;
}

#ifdef MERTAX_HAVE_SSSE3_SPREAD
namespace {

// For eight slot bits m: byte j is the rank of bit j among the set bits when it is set, else
// 0x80, which makes the shuffle yield 0 there.
constexpr std::array<uint64_t, 256> MakeShuffles()
{
    std::array<uint64_t, 256> shuffles{};
    for (unsigned m = 0; m < 256; ++m) {
        unsigned rank = 0;
        for (unsigned j = 0; j < 8; ++j)
            shuffles[m] |= uint64_t((m >> j) & 1 ? rank++ : 0x80) << (8 * j);
    }
    return shuffles;
}

constexpr std::array<uint64_t, 256> SHUFFLES = MakeShuffles();

} // namespace

__attribute__((target("ssse3,popcnt"))) size_t SpreadSlotsSsse3(uint64_t bits, const uint8_t* pValues, uint8_t fill,
                                                                 uint8_t* pOut)
{
    const __m128i fills = _mm_set1_epi8(char(fill));
    const __m128i none = _mm_set1_epi8(-1);
    size_t taken = 0;
    for (unsigned block = 0; block < 4; ++block, bits >>= 16) {
        const unsigned low = unsigned(bits & 0xFF);
        const unsigned high = unsigned(bits >> 8) & 0xFF;
        // The high eight slots draw from past the values that the low eight took.
        const uint64_t highOffset = uint64_t(__builtin_popcount(low)) * 0x0101010101010101ull;
        const __m128i order = _mm_set_epi64x(int64_t(SHUFFLES[high] + highOffset), int64_t(SHUFFLES[low]));
        const __m128i values = _mm_loadu_si128(reinterpret_cast<const __m128i*>(pValues + taken));
        const __m128i spread = _mm_shuffle_epi8(values, order);
        const __m128i isSet = _mm_cmpgt_epi8(order, none);
        _mm_storeu_si128(reinterpret_cast<__m128i*>(pOut + 16 * block),
                         _mm_or_si128(spread, _mm_andnot_si128(isSet, fills)));
        taken += unsigned(__builtin_popcount(unsigned(bits & 0xFFFF)));
    }
    return taken;
}
#endif

SlotSpreadFn SelectSlotSpread()
{
#ifdef MERTAX_HAVE_SSSE3_SPREAD
    static const SlotSpreadFn chosen = (__builtin_cpu_init(), __builtin_cpu_supports("ssse3") && __builtin_cpu_supports("popcnt"))
                                           ? SpreadSlotsSsse3
                                           : SpreadSlotsPortable;
    return chosen;
#else
    return SpreadSlotsPortable;
#endif
}
