// The moves between the slots of a 64-slot block and a packed row of nibbles, one per byte: the
// decoder spreads a plane's non-match nibbles over their slots; the encoder classifies a block's
// nibbles against the bias nibble and gathers the non-matches. The SSSE3 forms shuffle sixteen
// slots at a time (the NEON ones likewise), the AVX-512 ones (BW and VBMI2) expand and compress all
// 64 in one instruction;
// the portable forms visit the set bits one by one. All give the same bytes; KernelDispatch
// chooses among them.
#pragma once

#include <cstddef>
#include <cstdint>

// Writes the 64 bytes of pOut: every slot whose bit is set takes the next value of pValues, in
// order, every other slot the fill nibble. Returns how many values it took; pValues must be
// readable for 16 bytes past the last one taken.
using SlotSpreadFn = size_t (*)(uint64_t bits, const uint8_t* pValues, uint8_t fill, uint8_t* pOut);

// The slots' nibbles are the high (`high`) or the low halves of the bytes at pBytes, `blocks`
// blocks of 64 (a plane's whole blocks in one call). Sets pMatches[b] to the bits of block b's
// slots whose nibble equals `nibble`, appends the other nibbles to pOut in order (room for 64
// bytes past the last), and returns how many it appended.
using SlotClassifyFn = size_t (*)(const uint8_t* pBytes, size_t blocks, bool high, uint8_t nibble, uint8_t* pOut,
                                  uint64_t* pMatches);

size_t SpreadSlotsPortable(uint64_t bits, const uint8_t* pValues, uint8_t fill, uint8_t* pOut);
size_t ClassifySlotsPortable(const uint8_t* pBytes, size_t blocks, bool high, uint8_t nibble, uint8_t* pOut, uint64_t* pMatches);
#if defined(__x86_64__)
#define MERTAX_HAVE_X86_KERNELS 1
size_t SpreadSlotsSsse3(uint64_t bits, const uint8_t* pValues, uint8_t fill, uint8_t* pOut);
size_t ClassifySlotsSsse3(const uint8_t* pBytes, size_t blocks, bool high, uint8_t nibble, uint8_t* pOut, uint64_t* pMatches);
size_t SpreadSlotsAvx512(uint64_t bits, const uint8_t* pValues, uint8_t fill, uint8_t* pOut);
size_t ClassifySlotsAvx512(const uint8_t* pBytes, size_t blocks, bool high, uint8_t nibble, uint8_t* pOut, uint64_t* pMatches);
#endif
#if defined(__aarch64__)
#define MERTAX_HAVE_NEON_KERNELS 1
size_t SpreadSlotsNeon(uint64_t bits, const uint8_t* pValues, uint8_t fill, uint8_t* pOut);
size_t ClassifySlotsNeon(const uint8_t* pBytes, size_t blocks, bool high, uint8_t nibble, uint8_t* pOut, uint64_t* pMatches);
#endif
