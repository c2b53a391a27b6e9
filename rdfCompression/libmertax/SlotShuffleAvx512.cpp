// The AVX-512 forms of the slot moves (AVX-512 BW for the byte masks, VBMI2 for the byte expand
// and compress). Built for the baseline target like the rest of the library: only these functions
// carry the wider target, and KernelDispatch calls them only where the processor has it.
#include "SlotShuffle.h"

#ifdef MERTAX_HAVE_X86_KERNELS
#include <immintrin.h>

#define MERTAX_AVX512_TARGET __attribute__((target("avx512f,avx512bw,avx512vbmi2,popcnt")))

MERTAX_AVX512_TARGET size_t SpreadSlotsAvx512(uint64_t bits, const uint8_t* pValues, uint8_t fill, uint8_t* pOut)
{
    // A masked load reads only the values taken; the expand puts them into the set slots in order.
    const size_t taken = size_t(__builtin_popcountll(bits));
    const __mmask64 valid = taken >= 64 ? ~__mmask64(0) : (__mmask64(1) << taken) - 1;
    const __m512i values = _mm512_maskz_loadu_epi8(valid, pValues);
    _mm512_storeu_si512(pOut, _mm512_mask_expand_epi8(_mm512_set1_epi8(char(fill)), bits, values));
    return taken;
}

// (GCC's headers fill the unused merge sources of the insert and the shift from self-initialized
// variables, which the uninitialized-use warnings report; no value of them reaches a result.)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wuninitialized"
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
MERTAX_AVX512_TARGET size_t ClassifySlotsAvx512(const uint8_t* pBytes, size_t blocks, bool high, uint8_t nibble,
                                                 uint8_t* pOut, uint64_t* pMatches)
{
    // One compare gives a block's match mask; the compress packs the other slots, stored whole (a
    // byte-masked store is slower on some processors, and the output has room). The slots are
    // read in sixteen-byte pieces, as the baseline code may have stored them just before: one
    // 64-byte load over four recent stores would wait for them to retire.
    const __m512i shift = _mm512_set1_epi64(high ? 4 : 0); // a shift by a register: no branch per block
    size_t put = 0;
    for (size_t b = 0; b < blocks; ++b, pBytes += 64) {
        const auto piece = [pBytes](unsigned k) {
            return _mm_loadu_si128(reinterpret_cast<const __m128i*>(pBytes + 16 * k));
        };
        const __m512i bytes = _mm512_inserti64x4(_mm512_castsi256_si512(_mm256_set_m128i(piece(1), piece(0))),
                                                 _mm256_set_m128i(piece(3), piece(2)), 1);
        const __m512i slots = _mm512_and_si512(_mm512_srlv_epi64(bytes, shift), _mm512_set1_epi8(0x0F));
        const __mmask64 matches = _mm512_cmpeq_epi8_mask(slots, _mm512_set1_epi8(char(nibble)));
        _mm512_storeu_si512(pOut + put, _mm512_maskz_compress_epi8(~matches, slots));
        pMatches[b] = matches;
        put += 64 - size_t(__builtin_popcountll(matches));
    }
    return put;
}
#pragma GCC diagnostic pop
#endif
