// A segment's map turned into one bit per slot (1 = non-match), in slot order: plane 0 from
// element 0, then plane 1, and so on. Decoding the map apart from the stream lets the decoder
// count each plane's non-matches first and then fill the plane without a test per slot.
#pragma once

#include "BitOps.h"
#include "MapEntry.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>

struct SMapPattern
{
    uint64_t bits;
    uint8_t length;
};

// Slot bits of the one-byte entries below 0xC0, first slot in bit 0.
constexpr std::array<SMapPattern, 0xC0> MakeMapPatterns()
{
    std::array<SMapPattern, 0xC0> patterns{};
    for (unsigned entry = 0; entry < 0xC0; ++entry) {
        SMapPattern& p = patterns[entry];
        if (entry < 0x40) {
            // Group: bit 5 is the first slot, a 0 bit a non-match.
            for (unsigned slot = 0; slot < 6; ++slot)
                if ((entry & (0x20u >> slot)) == 0)
                    p.bits |= uint64_t(1) << slot;
            p.length = 6;
        } else if (entry < 0x80) {
            const unsigned count = entry & 0x3F;
            p.bits = (uint64_t(1) << count) - 1;
            p.length = uint8_t(count);
        } else {
            const unsigned matches = entry & 0x3F;
            p.bits = uint64_t(1) << matches;
            p.length = uint8_t(matches + 1);
        }
    }
    return patterns;
}

inline constexpr std::array<SMapPattern, 0xC0> MAP_PATTERNS = MakeMapPatterns();

class CNonMatchMask
{
public:
    // Slots of the largest segment: two per byte.
    static constexpr size_t MAX_SLOTS = 16384;

    // Classifies `slots` slots from the map at pMap. False when the map ends first.
    bool Decode(const uint8_t* pMap, const uint8_t* pMapEnd, size_t slots)
    {
        const size_t words = (slots + 63) / 64;
        // The word being filled is held in a register and stored when an entry crosses into the
        // next; every word up to two past the last slot's is written exactly once.
        uint64_t* pWord = m_words;
        uint64_t bits = 0;
        size_t pos = 0;
        while (pos < slots) {
            // Entries below 0xC0 cover at most 64 slots each: this many of them can be taken with
            // no test of the map's end or of the last slot.
            for (size_t safe = std::min<size_t>(size_t(pMapEnd - pMap), (slots - pos) / 64); safe != 0; --safe) {
                if (*pMap >= 0xC0)
                    break;
                PutPattern(MAP_PATTERNS[*pMap++], pos, pWord, bits);
            }
            if (pos >= slots)
                break;
            if (pMap == pMapEnd)
                return false;
            const uint8_t entry = *pMap++;
            if (entry < 0xC0) {
                PutPattern(MAP_PATTERNS[entry], pos, pWord, bits);
            } else {
                size_t matches;
                if (!ReadMatchSkip(entry, pMap, pMapEnd, matches))
                    return false;
                const size_t next = pos + matches;
                if (next >= slots) {
                    pos = next;
                    break;
                }
                // Matches leave 0 bits: the words they pass are finished as they stand.
                for (uint64_t* pTarget = m_words + next / 64; pWord != pTarget; bits = 0)
                    *pWord++ = bits;
                bits |= uint64_t(1) << (next & 63);
                pos = next + 1;
                if (pos % 64 == 0) {
                    *pWord++ = bits;
                    bits = 0;
                }
            }
        }
        // The last words, and bits past the last slot cleared: they belong to no slot (a group
        // cut short by the map's end reads as non-matches past it).
        for (uint64_t* pEnd = m_words + words + 2; pWord != pEnd; bits = 0)
            *pWord++ = bits;
        if (slots % 64 != 0)
            m_words[words - 1] &= LowBits(unsigned(slots % 64));
        m_words[words] = 0;
        return true;
    }

    // The 64 slot bits from `pos` on (slot pos in bit 0); bits past the last slot are 0.
    uint64_t BitsAt(size_t pos) const
    {
        const unsigned shift = pos & 63;
        const uint64_t low = m_words[pos >> 6] >> shift;
        return shift == 0 ? low : low | m_words[(pos >> 6) + 1] << (64 - shift);
    }

    // The non-matches in each block of 64 of the `count` slots from `pos` on (the last block may be
    // shorter) into pCounts, and their sum.
    size_t CountBlocks(size_t pos, size_t count, uint8_t* pCounts) const
    {
        if (pos % 64 == 0 && count % 64 == 0)
            return BitCounts(m_words + pos / 64, count / 64, pCounts);
        size_t nonMatches = 0;
        for (size_t block = 0; block * 64 < count; ++block) {
            const size_t slots = std::min<size_t>(64, count - block * 64);
            pCounts[block] = uint8_t(BitCount(BitsAt(pos + block * 64) & LowBits(unsigned(slots))));
            nonMatches += pCounts[block];
        }
        return nonMatches;
    }

private:
    // Groups, non-match runs and short skips are at most 64 slots: one table pattern at pos,
    // spilling into the next word. Without a branch: the crossing comes every few entries at no
    // predictable place.
    static void PutPattern(const SMapPattern& pattern, size_t& pos, uint64_t*& pWord, uint64_t& bits)
    {
        const unsigned shift = pos & 63;
        const uint64_t low = pattern.bits << shift;
        // The pattern's top `shift` bits spill into the next word (none at a shift of 0).
        const uint64_t spill = shift == 0 ? 0 : pattern.bits >> (64 - shift);
        bits |= low;
        *pWord = bits;
        const bool crossed = shift + pattern.length >= 64;
        pWord += crossed;
        bits = crossed ? spill : bits;
        pos += pattern.length;
    }

    uint64_t m_words[MAX_SLOTS / 64 + 2];
};
