// The map coder's vector step: where six-slot groups follow each other with no run of matches
// among them (noisy data), they lie on a grid from the coder's position, and one step codes up to
// 64 of them (384 slots) at once. The scalar coder in MapCoder.h is its portable twin: every
// kernel set writes the same map bytes, with or without the step.
#pragma once

#include <cstddef>
#include <cstdint>

// Codes the groups from slot p of the match bits (bit i of pMatches[i / 64] is slot i) as the
// scalar coder would at the same position, up to 64 groups (the AVX2 step takes 32) and only
// whole groups before slot `end`, stopping before a group of six matches that opens a run, before
// a stretch of over ten all-zero groups, and before all-zero groups that reach the step's end.
// Appends the entries at pOut and advances it; returns the slots coded (a multiple of six,
// possibly 0). The 64 bytes of match bits from byte p / 8 on must be readable.
using MapGroupsFn = size_t (*)(const uint64_t* pMatches, size_t p, size_t end, uint8_t*& pOut);

// Words the step may read past the last word of match bits.
constexpr size_t MAP_GROUPS_READ_PAST = 8;

#if defined(__x86_64__)
size_t CodeMapGroupsAvx2(const uint64_t* pMatches, size_t p, size_t end, uint8_t*& pOut);
size_t CodeMapGroupsAvx512(const uint64_t* pMatches, size_t p, size_t end, uint8_t*& pOut);
#endif
