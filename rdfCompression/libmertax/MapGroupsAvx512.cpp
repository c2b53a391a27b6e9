// The map coder's vector step on AVX-512 (BW; VBMI for byte permutes and the multishift; VBMI2 for
// byte compress; BMI2 for the mask interleave). Only these functions carry the wider target;
// KernelDispatch calls them only where the processor has it.
#include "MapGroups.h"

#ifdef __x86_64__
#include <immintrin.h>

namespace {

// Byte 8q + k of the groups' register comes from byte 6q + k of the match bits: qword q then holds
// the 48 bits of groups 8q to 8q + 7, from bit p % 8 on.
constexpr uint8_t LANE_BYTES[64] = {
    0,  1,  2,  3,  4,  5,  6,  7,  6,  7,  8,  9,  10, 11, 12, 13, 12, 13, 14, 15, 16, 17,
    18, 19, 18, 19, 20, 21, 22, 23, 24, 25, 24, 25, 26, 27, 28, 29, 30, 31, 30, 31, 32, 33,
    34, 35, 36, 37, 36, 37, 38, 39, 40, 41, 42, 43, 42, 43, 44, 45, 46, 47, 48, 49};
// Group k of a qword starts 6k bits in.
constexpr uint8_t GROUP_SHIFTS[64] = {
    0, 6, 12, 18, 24, 30, 36, 42, 0, 6, 12, 18, 24, 30, 36, 42, 0, 6, 12, 18, 24, 30,
    36, 42, 0, 6, 12, 18, 24, 30, 36, 42, 0, 6, 12, 18, 24, 30, 36, 42, 0, 6, 12, 18,
    24, 30, 36, 42, 0, 6, 12, 18, 24, 30, 36, 42, 0, 6, 12, 18, 24, 30, 36, 42};
// A group's six slots in entry order (the first slot in bit 5).
constexpr uint8_t REVERSED6[64] = {
    0x00, 0x20, 0x10, 0x30, 0x08, 0x28, 0x18, 0x38, 0x04, 0x24, 0x14, 0x34, 0x0C, 0x2C, 0x1C, 0x3C,
    0x02, 0x22, 0x12, 0x32, 0x0A, 0x2A, 0x1A, 0x3A, 0x06, 0x26, 0x16, 0x36, 0x0E, 0x2E, 0x1E, 0x3E,
    0x01, 0x21, 0x11, 0x31, 0x09, 0x29, 0x19, 0x39, 0x05, 0x25, 0x15, 0x35, 0x0D, 0x2D, 0x1D, 0x3D,
    0x03, 0x23, 0x13, 0x33, 0x0B, 0x2B, 0x1B, 0x3B, 0x07, 0x27, 0x17, 0x37, 0x0F, 0x2F, 0x1F, 0x3F};
// The non-match run entry for z held-back all-zero groups (6z slots), z up to 10.
constexpr uint8_t HELD_BACK[64] = {0, 0x46, 0x4C, 0x52, 0x58, 0x5E, 0x64, 0x6A, 0x70, 0x76, 0x7C};
constexpr unsigned MAX_HELD_BACK = 10;

constexpr uint64_t EVEN_BITS = 0x5555555555555555ULL;
constexpr uint64_t ODD_BITS = 0xAAAAAAAAAAAAAAAAULL;

struct SIndexTables
{
    uint8_t iota[64];      // 0 to 63
    uint8_t previous[64];  // j - 1 (lane 0: any, it is masked)
    uint8_t interleave[2][64]; // entry pairs (code j, group j) for j below 32, then from 32
    constexpr SIndexTables() : iota(), previous(), interleave()
    {
        for (unsigned j = 0; j < 64; ++j) {
            iota[j] = uint8_t(j);
            previous[j] = uint8_t(j == 0 ? 0 : j - 1);
        }
        for (unsigned half = 0; half < 2; ++half)
            for (unsigned j = 0; j < 32; ++j) {
                interleave[half][2 * j] = uint8_t(32 * half + j);
                interleave[half][2 * j + 1] = uint8_t(64 + 32 * half + j);
            }
    }
};
constexpr SIndexTables TABLES;

inline uint64_t LowMask(unsigned n) { return n >= 64 ? ~uint64_t(0) : (uint64_t(1) << n) - 1; }

} // namespace

// (GCC's VBMI header fills unused merge sources from self-initialized variables, which the
// uninitialized-use warnings report; no value of them reaches a result.)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wuninitialized"
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
__attribute__((target("avx512f,avx512bw,avx512vbmi,avx512vbmi2,bmi2,popcnt")))
size_t CodeMapGroupsAvx512(const uint64_t* pMatches, size_t p, size_t end, uint8_t*& pOut)
{
    // The 64 groups from slot p, each in the low six bits of a byte, slot order (first slot bit 0).
    const __m512i raw = _mm512_loadu_si512(reinterpret_cast<const uint8_t*>(pMatches) + p / 8);
    const __m512i lanes = _mm512_permutexvar_epi8(_mm512_loadu_si512(LANE_BYTES), raw);
    const __m512i shifts = _mm512_add_epi8(_mm512_loadu_si512(GROUP_SHIFTS), _mm512_set1_epi8(char(p % 8)));
    const __m512i groups = _mm512_and_si512(_mm512_multishift_epi64_epi8(shifts, lanes), _mm512_set1_epi8(0x3F));

    // A group of six matches right after a group with a match (or first) opens a run: stop there.
    // Right after all-zero groups it is coded as a group, as the scalar coder does.
    const uint64_t nonZero = _mm512_test_epi8_mask(groups, groups);
    const uint64_t full = _mm512_cmpeq_epi8_mask(groups, _mm512_set1_epi8(0x3F));
    const uint64_t breaks = full & ((nonZero << 1) | 1);
    const size_t whole = (end - p) / 6; // groups before the last slot's end
    uint64_t coded = nonZero & LowMask(breaks ? unsigned(__builtin_ctzll(breaks)) : 64) &
                     LowMask(whole < 64 ? unsigned(whole) : 64);
    if (coded == 0)
        return 0;

    // The non-zero groups packed, with the count of all-zero groups before each.
    const __m512i index = _mm512_maskz_compress_epi8(coded, _mm512_loadu_si512(TABLES.iota));
    const __m512i before = _mm512_mask_permutexvar_epi8(_mm512_set1_epi8(-1), ~uint64_t(1),
                                                        _mm512_loadu_si512(TABLES.previous), index);
    const __m512i gaps = _mm512_sub_epi8(index, _mm512_add_epi8(before, _mm512_set1_epi8(1)));
    unsigned count = unsigned(_mm_popcnt_u64(coded));
    const uint64_t tooLong = _mm512_cmpgt_epu8_mask(gaps, _mm512_set1_epi8(char(MAX_HELD_BACK))) & LowMask(count);
    if (tooLong != 0) {
        // A long stretch of all-zero groups is the scalar coder's: stop after the group before it.
        count = unsigned(__builtin_ctzll(tooLong));
        if (count == 0)
            return 0;
        coded &= LowMask(unsigned(63 - __builtin_clzll(_pdep_u64(uint64_t(1) << (count - 1), coded))) + 1);
    }
    const unsigned last = unsigned(63 - __builtin_clzll(coded)); // all-zero groups after it wait

    // Entries: the held-back code (when zeros came before) and the group, interleaved pair by pair,
    // then the absent codes squeezed out.
    const __m512i entries = _mm512_permutexvar_epi8(groups, _mm512_loadu_si512(REVERSED6));
    const __m512i packed = _mm512_maskz_compress_epi8(coded, entries);
    const __m512i codes = _mm512_permutexvar_epi8(gaps, _mm512_loadu_si512(HELD_BACK));
    const uint64_t valid = LowMask(count);
    const uint64_t hasCode = _mm512_test_epi8_mask(gaps, gaps) & valid;
    for (unsigned half = 0; half < 2; ++half) {
        const uint64_t keep = _pdep_u64((hasCode >> (32 * half)) & 0xFFFFFFFF, EVEN_BITS) |
                              _pdep_u64((valid >> (32 * half)) & 0xFFFFFFFF, ODD_BITS);
        const __m512i pairs = _mm512_permutex2var_epi8(codes, _mm512_loadu_si512(TABLES.interleave[half]), packed);
        const unsigned bytes = unsigned(_mm_popcnt_u64(keep));
        _mm512_mask_storeu_epi8(pOut, LowMask(bytes), _mm512_maskz_compress_epi8(keep, pairs));
        pOut += bytes;
    }
    return 6 * size_t(last + 1);
}
#pragma GCC diagnostic pop
#endif
