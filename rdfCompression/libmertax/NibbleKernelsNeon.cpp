// The nibble coder's kernels with NEON (part of every AArch64 processor): the repeat marks of a
// word from four compares of sixteen, the pack sixteen bytes at a time from a de-interleaving load.
// The same bytes as the portable forms.
#include "NibbleKernels.h"

#ifdef __aarch64__
#include <arm_neon.h>

namespace {

// Bit j of the result: byte j % 16 of comparison result j / 16 is all ones. Each byte keeps its
// own bit weight, and three rounds of pairwise sums close the bits up into one 64-bit lane.
inline uint64_t MoveMask64(uint8x16_t a, uint8x16_t b, uint8x16_t c, uint8x16_t d)
{
    const uint8x16_t weights = {1, 2, 4, 8, 16, 32, 64, 128, 1, 2, 4, 8, 16, 32, 64, 128};
    const uint8x16_t ab = vpaddq_u8(vandq_u8(a, weights), vandq_u8(b, weights));
    const uint8x16_t cd = vpaddq_u8(vandq_u8(c, weights), vandq_u8(d, weights));
    const uint8x16_t abcd = vpaddq_u8(ab, cd);
    return vgetq_lane_u64(vreinterpretq_u64_u8(vpaddq_u8(abcd, abcd)), 0);
}

inline uint8x16_t SameAsBefore(const uint8_t* p) { return vceqq_u8(vld1q_u8(p), vld1q_u8(p - 1)); }

} // namespace

size_t MarkRepeatsNeon(const uint8_t* pNibbles, size_t count, uint64_t* pSame, uint64_t* pThird)
{
    const size_t words = (count + 63) / 64;
    uint64_t carry = 0;
    for (size_t w = 0; w < words; ++w) {
        const uint8_t* p = pNibbles + 64 * w;
        const uint64_t bits = MoveMask64(SameAsBefore(p), SameAsBefore(p + 16), SameAsBefore(p + 32), SameAsBefore(p + 48));
        StoreRepeatWord(bits, w, count, carry, pSame, pThird);
    }
    return words;
}

void PackNibblesNeon(const uint8_t* pStaged, size_t bytes, uint8_t* pOut)
{
    size_t k = 0;
    for (; k + 16 <= bytes; k += 16) {
        // The even bytes (high halves) and the odd ones apart, then each high half shifted in
        // above its low one.
        const uint8x16x2_t pairs = vld2q_u8(pStaged + 2 * k);
        vst1q_u8(pOut + k, vsliq_n_u8(pairs.val[1], pairs.val[0], 4));
    }
    PackNibblesFrom(k, pStaged, bytes, pOut);
}
#endif
