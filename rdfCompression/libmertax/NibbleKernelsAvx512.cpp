// The nibble coder's kernels on AVX-512 (BW): a word's 64 repeat marks in one compare against
// themselves one byte back, straight into a mask; the pack 32 bytes at a time; with VBMI2, a
// window of runs coded at once. Only these functions carry the wider target; KernelDispatch
// calls them only where the processor has it.
#include "NibbleKernels.h"

#ifdef __x86_64__
#include <immintrin.h>

__attribute__((target("avx512f,avx512bw"))) size_t MarkRepeatsAvx512(const uint8_t* pNibbles, size_t count,
                                                                     uint64_t* pSame, uint64_t* pThird)
{
    const size_t words = (count + 63) / 64;
    uint64_t carry = 0;
    for (size_t w = 0; w < words; ++w) {
        const uint8_t* p = pNibbles + 64 * w;
        const uint64_t bits = _mm512_cmpeq_epi8_mask(_mm512_loadu_si512(p), _mm512_loadu_si512(p - 1));
        StoreRepeatWord(bits, w, count, carry, pSame, pThird);
    }
    return words;
}

__attribute__((target("avx512f,avx512bw"))) void PackNibblesAvx512(const uint8_t* pStaged, size_t bytes,
                                                                   uint8_t* pOut)
{
    // Each pair of bytes (high nibble first) multiplied by 16 and 1 and summed into its 16-bit
    // lane; the lanes narrowed to bytes in order (the zero-masking form of the narrowing: GCC 12
    // warns of the plain one's undefined source).
    const __m512i weights = _mm512_set1_epi16(0x0110);
    size_t k = 0;
    for (; k + 32 <= bytes; k += 32) {
        const __m512i pairs = _mm512_maddubs_epi16(_mm512_loadu_si512(pStaged + 2 * k), weights);
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(pOut + k), _mm512_maskz_cvtepi16_epi8(~__mmask32(0), pairs));
    }
    PackNibblesFrom(k, pStaged, bytes, pOut);
}

// A run's code is no longer than the run (see RUN_TAILS), so slot k of a run takes the run's
// k-th code nibble or is dropped, and a window's stream is its slots' values compacted.
namespace {

constexpr uint8_t CODE_KEPT = 0x40;  // the slot is kept
constexpr uint8_t CODE_VALUE = 0x80; // with its own value; otherwise with the low four bits

// RUN_CODES[E][k - 1][r % 64]: the k-th code nibble (k = 1 to 4) of a run of r (1 to 64) under
// escape E.
struct SRunCodes
{
    uint8_t m_aCode[16][4][64];
};

constexpr SRunCodes MakeRunCodes()
{
    SRunCodes codes{};
    for (unsigned escape = 0; escape < 16; ++escape)
        for (unsigned r = 1; r <= 64; ++r)
            for (unsigned k = 0; k < RUN_TAILS.m_aCount[escape][r]; ++k) {
                const uint8_t nibble = uint8_t(RUN_TAILS.m_aNibbles[escape][r] >> (8 * k));
                codes.m_aCode[escape][k][r % 64] =
                    uint8_t(CODE_KEPT | (nibble == RUN_TAIL_VALUE ? CODE_VALUE : nibble));
            }
    return codes;
}

constexpr SRunCodes RUN_CODES = MakeRunCodes();

// At the slots `at` (slot k of their runs), code nibble k of their runs: looked up in `table` by
// the length at each run's start, then moved k slots on (`back` holds each slot's number less k).
__attribute__((target("avx512f,avx512bw,avx512vbmi"))) inline __m512i
CodeNibbleAt(uint64_t at, __m512i back, uint64_t starts, __m512i atStart, __m512i table)
{
    return _mm512_maskz_permutexvar_epi8(at, back, _mm512_maskz_permutexvar_epi8(starts, atStart, table));
}

} // namespace

// Each window: the run lengths from its repeat marks, each looked up at its run's start in the
// tables of the code's nibbles 1 to 4, those moved 1 to 4 slots on, and the kept slots compacted.
__attribute__((target("avx512f,avx512bw,avx512vbmi,avx512vbmi2,popcnt,lzcnt"))) size_t
CodeRunWindowsAvx512(const uint8_t* pNibbles, const uint64_t* pSame, size_t from, size_t count, uint8_t escape,
                     uint8_t*& pOut)
{
    const __m512i slot = _mm512_set_epi8(63, 62, 61, 60, 59, 58, 57, 56, 55, 54, 53, 52, 51, 50, 49, 48, 47, 46, 45,
                                         44, 43, 42, 41, 40, 39, 38, 37, 36, 35, 34, 33, 32, 31, 30, 29, 28, 27, 26,
                                         25, 24, 23, 22, 21, 20, 19, 18, 17, 16, 15, 14, 13, 12, 11, 10, 9, 8, 7, 6, 5,
                                         4, 3, 2, 1, 0);
    const __m512i one = _mm512_set1_epi8(1), low = _mm512_set1_epi8(0xF);
    const __m512i kept = _mm512_set1_epi8(char(CODE_KEPT)), value = _mm512_set1_epi8(char(CODE_VALUE));
    const __m512i back1 = _mm512_sub_epi8(slot, one), back2 = _mm512_sub_epi8(back1, one);
    const __m512i back3 = _mm512_sub_epi8(back2, one), back4 = _mm512_sub_epi8(back3, one);
    const __m512i code1 = _mm512_loadu_si512(RUN_CODES.m_aCode[escape][0]);
    const __m512i code2 = _mm512_loadu_si512(RUN_CODES.m_aCode[escape][1]);
    const __m512i code3 = _mm512_loadu_si512(RUN_CODES.m_aCode[escape][2]);
    const __m512i code4 = _mm512_loadu_si512(RUN_CODES.m_aCode[escape][3]);
    const size_t lastWord = (count - 1) / 64;
    uint8_t* pStream = pOut;
    size_t i = from;
    while (i < count) {
        // The window's repeat marks come from the plane's, so that where the next window starts
        // depends on a few scalar steps only and windows overlap in the processor.
        const size_t w = i / 64, left = count - i;
        const unsigned shift = unsigned(i % 64);
        const uint64_t next = w < lastWord ? pSame[w + 1] : 0;
        // Bit j: slot j goes on with the run of slot j - 1 (slot 0 starts one).
        uint64_t same = (pSame[w] >> shift | (next << 1) << (63 - shift)) & ~uint64_t(1);
        unsigned end = left < 64 ? unsigned(left) : 64;
        if (left > 64 && (next >> shift & 1) != 0) {
            // Slot 64 goes on with the run of slot 63: the window ends where the last run that
            // ends within it ends.
            if (same == ~uint64_t(1))
                break;
            end = 63 - unsigned(__builtin_clzll(~same));
        }
        const __m512i v = _mm512_loadu_si512(pNibbles + i);
        const uint64_t in = LowBits(end);
        same &= in;
        const uint64_t starts = ~same & in;
        const uint64_t lasts = (starts >> 1 | uint64_t(1) << (end - 1)) & in;
        // Run lengths in order, then each at its run's start (a run of 64 as 0, the tables' slot
        // for it).
        const __m512i lengths = _mm512_sub_epi8(_mm512_maskz_compress_epi8(lasts, _mm512_add_epi8(slot, one)),
                                                _mm512_maskz_compress_epi8(starts, slot));
        const __m512i atStart = _mm512_maskz_expand_epi8(starts, lengths);
        // Slot k of a run (k = 1 to 4): the slots that go on with a run k - 1 long but not k long.
        const uint64_t k2 = same & same << 1, k3 = k2 & same << 2, k4 = k3 & same << 3, k5 = k4 & same << 4;
        const __m512i codes = _mm512_or_si512(
            _mm512_ternarylogic_epi64(CodeNibbleAt(same & ~k2, back1, starts, atStart, code1),
                                      CodeNibbleAt(k2 & ~k3, back2, starts, atStart, code2),
                                      CodeNibbleAt(k3 & ~k4, back3, starts, atStart, code3), 0xFE),
            CodeNibbleAt(k4 & ~k5, back4, starts, atStart, code4));
        const __mmask64 keptCodes = _mm512_test_epi8_mask(codes, kept);
        const __m512i stream = _mm512_mask_mov_epi8(v, _mm512_mask_testn_epi8_mask(keptCodes, codes, value),
                                                     _mm512_and_si512(codes, low));
        const uint64_t keep = starts | uint64_t(keptCodes);
        _mm512_storeu_si512(pStream, _mm512_maskz_compress_epi8(keep, stream));
        pStream += __builtin_popcountll(keep);
        i += end;
    }
    pOut = pStream;
    return i;
}
#endif
