// The slot moves with NEON (part of every AArch64 processor): sixteen slots at a time through
// TBL, as the SSSE3 forms do with PSHUFB; the same bytes as the portable forms.
#include "SlotShuffle.h"

#ifdef MERTAX_HAVE_NEON_KERNELS
#include "SlotOrders.h"

#include <arm_neon.h>

namespace {

// Bit j of the result: byte j of the comparison result is all ones (NEON has no PMOVMSKB).
inline unsigned MoveMask16(uint8x16_t isTrue)
{
    const uint8x16_t weights = {1, 2, 4, 8, 16, 32, 64, 128, 1, 2, 4, 8, 16, 32, 64, 128};
    const uint8x16_t bits = vandq_u8(isTrue, weights);
    return unsigned(vaddv_u8(vget_low_u8(bits))) | unsigned(vaddv_u8(vget_high_u8(bits))) << 8;
}

inline uint8x16_t Orders(uint64_t low, uint64_t high) { return vreinterpretq_u8_u64(vcombine_u64(vcreate_u64(low), vcreate_u64(high))); }

// Packs the bytes of `slots` whose bits (of 16) are set to pOut and returns how many; each half
// is stored where the bytes before it end.
inline unsigned GatherSixteen(unsigned bits, uint8x16_t slots, uint8_t* pOut)
{
    const unsigned low = bits & 0xFF;
    const unsigned high = bits >> 8;
    const uint8x16_t packed = vqtbl1q_u8(slots, Orders(GATHER_ORDERS[low], GATHER_ORDERS_HIGH[high]));
    const unsigned lowCount = unsigned(__builtin_popcount(low));
    vst1_u8(pOut, vget_low_u8(packed));
    vst1_u8(pOut + lowCount, vget_high_u8(packed));
    return lowCount + unsigned(__builtin_popcount(high));
}

} // namespace

size_t SpreadSlotsNeon(uint64_t bits, const uint8_t* pValues, uint8_t fill, uint8_t* pOut)
{
    const uint8x16_t fills = vdupq_n_u8(fill);
    const uint8x16_t unset = vdupq_n_u8(0x80);
    size_t taken = 0;
    for (unsigned block = 0; block < 4; ++block, bits >>= 16) {
        const unsigned low = unsigned(bits & 0xFF);
        const unsigned high = unsigned(bits >> 8) & 0xFF;
        // The high eight slots draw from past the values that the low eight took.
        const uint64_t highOffset = uint64_t(__builtin_popcount(low)) * 0x0101010101010101ull;
        const uint8x16_t order = Orders(SPREAD_ORDERS[low], SPREAD_ORDERS[high] + highOffset);
        const uint8x16_t spread = vqtbl1q_u8(vld1q_u8(pValues + taken), order);
        vst1q_u8(pOut + 16 * block, vbslq_u8(vcltq_u8(order, unset), spread, fills));
        taken += unsigned(__builtin_popcount(unsigned(bits & 0xFFFF)));
    }
    return taken;
}

size_t ClassifySlotsNeon(const uint8_t* pBytes, size_t blocks, bool high, uint8_t nibble, uint8_t* pOut,
                         uint64_t* pMatches)
{
    const uint8x16_t target = vdupq_n_u8(nibble);
    const int8x16_t shift = vdupq_n_s8(high ? -4 : 0); // a right shift by a register: no branch per row
    size_t put = 0;
    for (size_t b = 0; b < blocks; ++b, pBytes += 64) {
        uint64_t matches = 0;
        for (unsigned part = 0; part < 4; ++part) {
            const uint8x16_t slots = vandq_u8(vshlq_u8(vld1q_u8(pBytes + 16 * part), shift), vdupq_n_u8(0x0F));
            const unsigned match = MoveMask16(vceqq_u8(slots, target));
            matches |= uint64_t(match) << (16 * part);
            put += GatherSixteen(~match & 0xFFFF, slots, pOut + put);
        }
        pMatches[b] = matches;
    }
    return put;
}
#endif
