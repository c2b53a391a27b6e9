// The nibble coder's passes over whole buffers. The repeat marks: which nibbles of a plane
// repeat the one before, as bits, and which are the third of three in a row (where a run of the
// escape code can start). The pack: the staged stream, one nibble per byte, two to a byte. The
// run window (AVX-512 only): the runs of 64 slots coded at once, where runs come often. The
// portable forms take sixteen bytes at a time with SSE2 (eight with word tricks elsewhere); the
// NEON forms sixteen, the AVX2 and AVX-512 forms 32 and 64. All give the same bytes; KernelDispatch chooses.
#pragma once

#include "BitOps.h"

#include <cstddef>
#include <cstdint>

// Bit j of pSame[j / 64]: nibble j equals nibble j - 1 (nibble -1, at pNibbles[-1], is the last
// literal before the plane); bit j of pThird[j / 64]: so does nibble j - 1. Bits from `count` on
// are clear. Reads pNibbles[-1] up to the end of the last 64-byte word, whatever lies past
// `count`. Returns the number of words, (count + 63) / 64.
using RepeatMarkFn = size_t (*)(const uint8_t* pNibbles, size_t count, uint64_t* pSame, uint64_t* pThird);

// Stores word w of the marks from its "equals the one before" bits: the last word's bits past
// `count` dropped, and the third-in-a-row bits joined to the last bit of the word before (carry).
inline void StoreRepeatWord(uint64_t same, size_t w, size_t count, uint64_t& carry, uint64_t* pSame,
                            uint64_t* pThird)
{
    same &= LowBits(unsigned(count - 64 * w < 64 ? count - 64 * w : 64));
    pSame[w] = same;
    pThird[w] = same & (same << 1 | carry);
    carry = same >> 63;
}

// Writes the `bytes` bytes at pOut, each from two nibbles of pStaged (one per byte, the high half
// first).
using NibblePackFn = void (*)(const uint8_t* pStaged, size_t bytes, uint8_t* pOut);

// The bytes from `done` on, one at a time: the vector forms' tail.
inline void PackNibblesFrom(size_t done, const uint8_t* pStaged, size_t bytes, uint8_t* pOut)
{
    for (size_t k = done; k < bytes; ++k)
        pOut[k] = uint8_t(pStaged[2 * k] << 4 | pStaged[2 * k + 1]);
}

// The longest run one run code holds; a longer one goes on as a new run.
constexpr unsigned NM_RUN_LENGTH_MAX = 255;

// The run codes, for the run-by-run coder and the window kernels alike.
// RUN_TAILS.m_aNibbles[E][r]: the nibbles after a run's first literal for a run of r under
// escape E, one per byte (RUN_TAIL_VALUE stands for the run's value v), m_aCount how many:
// nothing for r = 1; v for 2; E r for 3 to 15; E E r>>4 r&15 for 16 and more; and v first when
// r is the escape itself, as a count nibble equal to the escape would read as a second escape.
constexpr uint8_t RUN_TAIL_VALUE = 0x80;

struct SRunTails
{
    uint32_t m_aNibbles[16][NM_RUN_LENGTH_MAX + 1];
    uint8_t m_aCount[16][NM_RUN_LENGTH_MAX + 1];
};

constexpr SRunTails MakeRunTails()
{
    SRunTails tails{};
    for (unsigned escape = 0; escape < 16; ++escape) {
        for (unsigned run = 1; run <= NM_RUN_LENGTH_MAX; ++run) {
            uint8_t seq[4] = {};
            unsigned count = 0, length = run;
            if (length == escape && length >= 3) {
                seq[count++] = RUN_TAIL_VALUE;
                --length;
            }
            if (length == 2) {
                seq[count++] = RUN_TAIL_VALUE;
            } else if (length >= 3 && length <= 15) {
                seq[count++] = uint8_t(escape);
                seq[count++] = uint8_t(length);
            } else if (length >= 16) {
                seq[count++] = uint8_t(escape);
                seq[count++] = uint8_t(escape);
                seq[count++] = uint8_t(length >> 4);
                seq[count++] = uint8_t(length & 0xF);
            }
            tails.m_aNibbles[escape][run] =
                uint32_t(seq[0]) | uint32_t(seq[1]) << 8 | uint32_t(seq[2]) << 16 | uint32_t(seq[3]) << 24;
            tails.m_aCount[escape][run] = uint8_t(count);
        }
    }
    return tails;
}

inline constexpr SRunTails RUN_TAILS = MakeRunTails();

// Codes the runs of nibbles pNibbles[from] to pNibbles[count - 1], whose repeat marks are
// pSame's (slot `from` starts a run whatever came before it), as the run-by-run coder would,
// window by window: each window reaches up to the last run that ends within 64 slots, so its runs
// are whole and none reaches the cap of 255. Stops at count or at the start of a run longer than
// 64 slots, and returns where. Writes the stream's nibbles at pOut (up to 64 bytes past them) and
// advances it. Reads pNibbles[from] to pNibbles[count + 63]. Null in sets without it: the coder
// then takes each run on its own.
using RunWindowFn = size_t (*)(const uint8_t* pNibbles, const uint64_t* pSame, size_t from, size_t count,
                               uint8_t escape, uint8_t*& pOut);

struct CNibbleKernels
{
    RepeatMarkFn markRepeats;
    NibblePackFn pack;
    RunWindowFn codeRunWindows;
};

size_t MarkRepeatsPortable(const uint8_t* pNibbles, size_t count, uint64_t* pSame, uint64_t* pThird);
void PackNibblesPortable(const uint8_t* pStaged, size_t bytes, uint8_t* pOut);
#if defined(__x86_64__)
size_t MarkRepeatsAvx2(const uint8_t* pNibbles, size_t count, uint64_t* pSame, uint64_t* pThird);
void PackNibblesAvx2(const uint8_t* pStaged, size_t bytes, uint8_t* pOut);
size_t MarkRepeatsAvx512(const uint8_t* pNibbles, size_t count, uint64_t* pSame, uint64_t* pThird);
void PackNibblesAvx512(const uint8_t* pStaged, size_t bytes, uint8_t* pOut);
size_t CodeRunWindowsAvx512(const uint8_t* pNibbles, const uint64_t* pSame, size_t from, size_t count, uint8_t escape,
                            uint8_t*& pOut);
#endif
#if defined(__aarch64__)
size_t MarkRepeatsNeon(const uint8_t* pNibbles, size_t count, uint64_t* pSame, uint64_t* pThird);
void PackNibblesNeon(const uint8_t* pStaged, size_t bytes, uint8_t* pOut);
#endif
