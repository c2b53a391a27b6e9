// Spreading of a plane's non-match nibbles over a block of 64 slots: every slot whose bit is set
// takes the next value, in order, every other slot the fill nibble. The SSSE3 form shuffles
// sixteen slots at a time; the portable form visits the set bits one by one. Both give the same
// bytes, and the portable one stays in use where SSSE3 is missing.
#pragma once

#include <cstddef>
#include <cstdint>

// Writes the 64 bytes of pOut and returns how many values it took from pValues, which must be
// readable for 16 bytes past the last value taken.
using SlotSpreadFn = size_t (*)(uint64_t bits, const uint8_t* pValues, uint8_t fill, uint8_t* pOut);

size_t SpreadSlotsPortable(uint64_t bits, const uint8_t* pValues, uint8_t fill, uint8_t* pOut);
#if defined(__x86_64__) || defined(__i386__)
#define MERTAX_HAVE_SSSE3_SPREAD 1
size_t SpreadSlotsSsse3(uint64_t bits, const uint8_t* pValues, uint8_t fill, uint8_t* pOut);
#endif

// The fastest form this processor runs, chosen once.
SlotSpreadFn SelectSlotSpread();
