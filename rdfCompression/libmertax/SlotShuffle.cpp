#include "SlotShuffle.h"

#include "BitOps.h"
#include "SlotOrders.h"

#include <cstring>

#ifdef MERTAX_HAVE_X86_KERNELS
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

namespace {

// Appends to pOut the bytes of the 64-byte pSlots whose bits are set, in order; returns how many.
size_t GatherSlotsPortable(uint64_t bits, const uint8_t* pSlots, uint8_t* pOut)
{
    size_t put = 0;
    for (; bits != 0; bits &= bits - 1)
        pOut[put++] = pSlots[__builtin_ctzll(bits)];
    return put;
}

} // namespace

size_t ClassifySlotsPortable(const uint8_t* pBytes, size_t blocks, bool high, uint8_t nibble, uint8_t* pOut,
                             uint64_t* pMatches)
{
    size_t put = 0;
    for (size_t b = 0; b < blocks; ++b, pBytes += 64) {
        // One loop for each half, each with a fixed count that the compiler vectorizes.
        uint8_t slots[64];
        if (high) {
            for (unsigned i = 0; i < 64; ++i)
                slots[i] = pBytes[i] >> 4;
        } else {
            for (unsigned i = 0; i < 64; ++i)
                slots[i] = pBytes[i] & 0xF;
        }
        pMatches[b] = MatchMask64(slots, nibble);
        put += GatherSlotsPortable(~pMatches[b], slots, pOut + put);
    }
    return put;
}

#ifdef MERTAX_HAVE_X86_KERNELS
__attribute__((target("ssse3,popcnt"))) size_t SpreadSlotsSsse3(uint64_t bits, const uint8_t* pValues, uint8_t fill,
                                                                 uint8_t* pOut)
{
    const __m128i fills = _mm_set1_epi8(char(fill));
    const __m128i none = _mm_set1_epi8(-1);
    size_t taken = 0;
#pragma GCC unroll 4
    for (unsigned block = 0; block < 4; ++block, bits >>= 16) {
        const unsigned low = unsigned(bits & 0xFF);
        const unsigned high = unsigned(bits >> 8) & 0xFF;
        // The high eight slots draw from past the values that the low eight took.
        const uint64_t highOffset = uint64_t(__builtin_popcount(low)) * 0x0101010101010101ull;
        const __m128i order = _mm_set_epi64x(int64_t(SPREAD_ORDERS[high] + highOffset), int64_t(SPREAD_ORDERS[low]));
        const __m128i values = _mm_loadu_si128(reinterpret_cast<const __m128i*>(pValues + taken));
        const __m128i spread = _mm_shuffle_epi8(values, order);
        const __m128i isSet = _mm_cmpgt_epi8(order, none);
        _mm_storeu_si128(reinterpret_cast<__m128i*>(pOut + 16 * block),
                         _mm_or_si128(spread, _mm_andnot_si128(isSet, fills)));
        taken += unsigned(__builtin_popcount(unsigned(bits & 0xFFFF)));
    }
    return taken;
}

// Packs the bytes of `slots` whose bits (of 16) are set to pOut and returns how many: the low
// eight slots into the low half, the high eight (indices 8 on) into the high half, each half
// stored where the bytes before it end.
__attribute__((target("ssse3,popcnt"))) inline unsigned GatherSixteen(unsigned bits, __m128i slots, uint8_t* pOut)
{
    const unsigned low = bits & 0xFF;
    const unsigned high = bits >> 8;
    const __m128i order = _mm_unpacklo_epi64(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(&GATHER_ORDERS[low])),
                                             _mm_loadl_epi64(reinterpret_cast<const __m128i*>(&GATHER_ORDERS_HIGH[high])));
    const __m128i packed = _mm_shuffle_epi8(slots, order);
    const unsigned lowCount = unsigned(__builtin_popcount(low));
    _mm_storel_epi64(reinterpret_cast<__m128i*>(pOut), packed);
    _mm_storel_epi64(reinterpret_cast<__m128i*>(pOut + lowCount), _mm_unpackhi_epi64(packed, packed));
    return lowCount + unsigned(__builtin_popcount(high));
}

// Sixteen slots at a time: one compare gives their match bits, and the others are gathered from
// the same register.
__attribute__((target("ssse3,popcnt"))) size_t ClassifySlotsSsse3(const uint8_t* pBytes, size_t blocks, bool high,
                                                                   uint8_t nibble, uint8_t* pOut, uint64_t* pMatches)
{
    const __m128i target = _mm_set1_epi8(char(nibble));
    const __m128i low4 = _mm_set1_epi8(0x0F);
    const __m128i shift = _mm_cvtsi32_si128(high ? 4 : 0); // a shift by a register: no branch per row
    size_t put = 0;
    for (size_t b = 0; b < blocks; ++b, pBytes += 64) {
        uint64_t matches = 0;
#pragma GCC unroll 4
        for (unsigned part = 0; part < 4; ++part) {
            __m128i slots = _mm_loadu_si128(reinterpret_cast<const __m128i*>(pBytes + 16 * part));
            slots = _mm_and_si128(_mm_srl_epi16(slots, shift), low4);
            const unsigned match = unsigned(_mm_movemask_epi8(_mm_cmpeq_epi8(slots, target)));
            matches |= uint64_t(match) << (16 * part);
            put += GatherSixteen(~match & 0xFFFF, slots, pOut + put);
        }
        pMatches[b] = matches;
    }
    return put;
}
#endif
