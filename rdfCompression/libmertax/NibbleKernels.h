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
