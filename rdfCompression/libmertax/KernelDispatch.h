// The one place where the codec's vector kernels are chosen. The library is built for the
// baseline x86-64 (or AArch64) target; kernels for wider instruction sets carry per-function target attributes
// in their own files, each with a portable twin that gives the same bytes. The processor is asked
// once (thread-safely) which sets it runs, and the widest is used unless a test or benchmark
// picks another with UseKernelSet. SSE2 is part of the baseline and needs no choice.
#pragma once

#include "CellPasses.h"
#include "MapGroups.h"
#include "NibbleKernels.h"
#include "SlotShuffle.h"

#include <cstdint>
#include <vector>

enum class EKernelSet : uint8_t
{
    PORTABLE,
    SSSE3,  // SSSE3 shuffles with POPCNT
    AVX2,   // the SSSE3 shuffles, the map's grid step, the nibble coder's passes and the passes over the cells
            // on AVX2 (with BMI1 and POPCNT)
    AVX512, // AVX-512 F, BW, VBMI and VBMI2 with BMI2: byte expand and compress, the map's grid step,
            // the nibble coder's passes, the passes over the cells
    NEON,   // AArch64's vector set, present on every such processor: the slot moves and the nibble
            // coder's passes
};

struct CKernels
{
    const char* name;
    SlotSpreadFn spread;
    SlotClassifyFn classify;
    CCellKernels cells;
    MapGroupsFn mapGroups; // null: the scalar map coder alone
    CNibbleKernels nibbles;
};

// The sets this processor runs, the portable one first and the widest last.
const std::vector<EKernelSet>& SupportedKernelSets();
const CKernels& KernelsOf(EKernelSet set);
// The kernels the coders use now.
const CKernels& ActiveKernels();
// Makes the coders use `set` from now on (in every thread); false, and no change, when the
// processor does not run it.
bool UseKernelSet(EKernelSet set);
