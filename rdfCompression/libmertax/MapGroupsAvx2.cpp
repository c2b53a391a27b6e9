// The map coder's vector step on AVX2 (with BMI1 and POPCNT): 32 groups at a time. The groups are
// cut out of the match bits with shifts and masks, not PDEP, which processors of AMD before Zen 3
// run in microcode; the entries then go out one per set bit of the coded groups' mask. Only this
// function carries the wider target; KernelDispatch calls it only where the processor has it.
#include "MapGroups.h"

#ifdef __x86_64__
#include <immintrin.h>

namespace {

constexpr unsigned GROUPS = 32;
constexpr unsigned MAX_HELD_BACK = 10;

// The non-match run entry for z held-back all-zero groups (6z slots), z up to 10.
constexpr uint8_t HELD_BACK[MAX_HELD_BACK + 1] = {0, 0x46, 0x4C, 0x52, 0x58, 0x5E, 0x64, 0x6A, 0x70, 0x76, 0x7C};

// Three bytes of match bits (four groups) into each 32-bit lane: dwords 0 to 2 and 3 to 5 of the
// aligned bits go to the two 128-bit halves, then each half spreads its twelve bytes.
alignas(32) constexpr int32_t HALF_DWORDS[8] = {0, 1, 2, 3, 3, 4, 5, 6};
alignas(32) constexpr int8_t LANE_BYTES[32] = {0, 1, 2, -1, 3, 4, 5, -1, 6, 7, 8, -1, 9, 10, 11, -1,
                                               0, 1, 2, -1, 3, 4, 5, -1, 6, 7, 8, -1, 9, 10, 11, -1};
// A group's six slots in entry order (the first slot in bit 5), from its low four and high two
// bits.
alignas(32) constexpr int8_t REVERSED_LOW[32] = {
    0x00, 0x20, 0x10, 0x30, 0x08, 0x28, 0x18, 0x38, 0x04, 0x24, 0x14, 0x34, 0x0C, 0x2C, 0x1C, 0x3C,
    0x00, 0x20, 0x10, 0x30, 0x08, 0x28, 0x18, 0x38, 0x04, 0x24, 0x14, 0x34, 0x0C, 0x2C, 0x1C, 0x3C};
alignas(32) constexpr int8_t REVERSED_HIGH[32] = {0, 2, 1, 3, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0,
                                                  0, 2, 1, 3, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0};

} // namespace

__attribute__((target("avx2,bmi,popcnt")))
size_t CodeMapGroupsAvx2(const uint64_t* pMatches, size_t p, size_t end, uint8_t*& pOut)
{
    // The 192 match bits from slot p, moved down by p % 8 bits: each qword takes the next one's low
    // bits (a shift by 64 gives zero).
    const uint8_t* pBytes = reinterpret_cast<const uint8_t*>(pMatches) + p / 8;
    const __m128i shift = _mm_cvtsi32_si128(int(p % 8));
    const __m128i back = _mm_cvtsi32_si128(int(64 - p % 8));
    const __m256i aligned =
        _mm256_or_si256(_mm256_srl_epi64(_mm256_loadu_si256(reinterpret_cast<const __m256i*>(pBytes)), shift),
                        _mm256_sll_epi64(_mm256_loadu_si256(reinterpret_cast<const __m256i*>(pBytes + 8)), back));

    // Lane i holds bits 24i to 24i + 23; group k of the lane moves from bit 6k to byte k.
    const __m256i lanes = _mm256_shuffle_epi8(
        _mm256_permutevar8x32_epi32(aligned, _mm256_load_si256(reinterpret_cast<const __m256i*>(HALF_DWORDS))),
        _mm256_load_si256(reinterpret_cast<const __m256i*>(LANE_BYTES)));
    const __m256i groups = _mm256_or_si256(
        _mm256_or_si256(_mm256_and_si256(lanes, _mm256_set1_epi32(0x3F)),
                        _mm256_and_si256(_mm256_slli_epi32(lanes, 2), _mm256_set1_epi32(0x3F00))),
        _mm256_or_si256(_mm256_and_si256(_mm256_slli_epi32(lanes, 4), _mm256_set1_epi32(0x3F0000)),
                        _mm256_and_si256(_mm256_slli_epi32(lanes, 6), _mm256_set1_epi32(0x3F000000))));

    // A group of six matches right after a group with a match (or first) opens a run: stop there.
    // Right after all-zero groups it is coded as a group, as the scalar coder does.
    const uint32_t nonZero = ~uint32_t(_mm256_movemask_epi8(_mm256_cmpeq_epi8(groups, _mm256_setzero_si256())));
    const uint32_t full = uint32_t(_mm256_movemask_epi8(_mm256_cmpeq_epi8(groups, _mm256_set1_epi8(0x3F))));
    const uint32_t breaks = full & ((nonZero << 1) | 1);
    const size_t whole = (end - p) / 6; // groups before the last slot's end
    uint32_t coded = breaks != 0 ? nonZero & ((uint32_t(1) << __builtin_ctz(breaks)) - 1) : nonZero;
    if (whole < GROUPS)
        coded &= (uint32_t(1) << whole) - 1;
    if (coded == 0)
        return 0;

    uint8_t entries[GROUPS];
    const __m256i low = _mm256_and_si256(groups, _mm256_set1_epi8(0x0F));
    const __m256i high = _mm256_and_si256(_mm256_srli_epi16(groups, 4), _mm256_set1_epi8(0x03));
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(entries),
                       _mm256_or_si256(_mm256_shuffle_epi8(_mm256_load_si256(reinterpret_cast<const __m256i*>(REVERSED_LOW)), low),
                                       _mm256_shuffle_epi8(_mm256_load_si256(reinterpret_cast<const __m256i*>(REVERSED_HIGH)), high)));

    // One entry per coded group, after the held-back code of the all-zero groups before it; a
    // stretch of over ten all-zero groups is the scalar coder's, which takes over before it.
    uint8_t* pEnd = pOut;
    unsigned next = 0; // the group after the last one coded
    do {
        const unsigned j = unsigned(__builtin_ctz(coded));
        const unsigned zeros = j - next;
        if (zeros > MAX_HELD_BACK)
            break;
        *pEnd = HELD_BACK[zeros];
        pEnd += zeros != 0;
        *pEnd++ = entries[j];
        next = j + 1;
        coded &= coded - 1;
    } while (coded != 0);
    pOut = pEnd;
    return 6 * size_t(next);
}
#endif
