// Reading of a map's match skip entries (bit 7 set), shared by the decoder and the hint replay.
#pragma once

#include <cstddef>
#include <cstdint>

// Matches of the skip entry `entry`: 0-63, 64 + 0-31, or 96 + a 13-bit number whose low byte is
// the next map byte (which pMap then passes). False when that byte lies at or past pMapEnd.
inline bool ReadMatchSkip(uint8_t entry, const uint8_t*& pMap, const uint8_t* pMapEnd, size_t& matches)
{
    if ((entry & 0x40) == 0) {
        matches = entry & 0x3F;
    } else if ((entry & 0x20) == 0) {
        matches = 64 + (entry & 0x1F);
    } else {
        if (pMap == pMapEnd)
            return false;
        matches = 96 + (size_t(entry & 0x1F) << 8) + *pMap++;
    }
    return true;
}
