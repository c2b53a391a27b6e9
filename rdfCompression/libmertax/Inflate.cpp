// Segment decoder: expands one compressed segment into its elements of type T.
#include "OptimalBiasDulo.h"

#include "ByteAccess.h"
#include "NonMatchMask.h"
#include "NonMatchReader.h"

#include <cstring>

namespace {

// Sets the nibble at `shift` of every non-match cell of one plane to the next value from pValues;
// the cells already hold the bias, which is what a match leaves.
template <typename T>
void PutPlane(const CNonMatchMask& mask, size_t firstSlot, size_t elems, unsigned shift, const uint8_t* pValues,
              uint8_t* pCells)
{
    const T keep = T(~(T(0xF) << shift));
    for (size_t elem = 0; elem < elems; elem += 64) {
        uint64_t bits = mask.BitsAt(firstSlot + elem);
        if (elems - elem < 64)
            bits &= (uint64_t(1) << (elems - elem)) - 1;
        // Only the non-matches are visited, lowest slot first.
        for (; bits != 0; bits &= bits - 1) {
            uint8_t* pCell = pCells + (elem + unsigned(__builtin_ctzll(bits))) * sizeof(T);
            StoreLE<T>(pCell, T((LoadLE<T>(pCell) & keep) | T(T(*pValues++) << shift)));
        }
    }
}

} // namespace

template <typename T>
size_t COptimalBiasDulo::Inflate(const uint8_t* pCmpData, size_t segLength, uint8_t* pDecmpData)
{
    const SegmentHeader hdr = SegmentHeader::FromWord(LoadLE<uint32_t>(pCmpData));
    size_t pos = 4;
    size_t segSize = STD_SEGSIZE;
    if (!hdr.stdSegSize) {
        segSize = LoadLE<uint16_t>(pCmpData + pos);
        pos += 2;
    }
    if (segSize == 0 || segSize % sizeof(T) != 0 || segSize > MAX_SEGMENT_BYTES)
        return 0;

    if (hdr.mapCode == NOT_COMPRESSED_MC) {
        if (segSize > segLength - pos)
            return 0;
        std::memcpy(pDecmpData, pCmpData + pos, segSize);
        return segSize;
    }

    T segmin = 0;
    T bias = 0;
    if (hdr.subadd) {
        if (sizeof(T) > segLength - pos)
            return 0;
        segmin = LoadLE<T>(pCmpData + pos);
        pos += sizeof(T);
    }
    if (hdr.algVersion == 1 || hdr.subadd) {
        if (sizeof(T) > segLength - pos)
            return 0;
        bias = LoadLE<T>(pCmpData + pos);
        pos += sizeof(T);
    }
    if (hdr.nonMatchLength > segLength - pos)
        return 0;
    const uint8_t* pMap = pCmpData + pos + hdr.nonMatchLength;
    const uint8_t* const pMapEnd = pCmpData + segLength;

    const size_t elems = segSize / sizeof(T);
    constexpr unsigned PLANES = 2 * sizeof(T);
    CNonMatchMask mask;
    if (!mask.Decode(pMap, pMapEnd, elems * PLANES))
        return 0;

    // Plane by plane: the plane's non-match nibbles from the stream, then put into their cells.
    for (size_t i = 0; i < elems; ++i)
        StoreLE<T>(pDecmpData + i * sizeof(T), bias);
    CNonMatchReader nonMatches(pCmpData + pos, hdr.nonMatchLength, uint8_t(bias >> (8 * sizeof(T) - 4)));
    uint8_t values[MAX_SEGMENT_BYTES + 16];
    for (unsigned plane = 0; plane < PLANES; ++plane) {
        const unsigned shift = 4 * (PLANES - 1 - plane);
        const size_t firstSlot = plane * elems;
        const size_t count = mask.Count(firstSlot, elems);
        if (count == 0)
            continue;
        if (!nonMatches.Take(count, uint8_t(bias >> shift) & 0xF, values))
            return 0;
        PutPlane<T>(mask, firstSlot, elems, shift, values, pDecmpData);
    }

    if (hdr.subadd) {
        for (size_t i = 0; i < elems; ++i) {
            uint8_t* pCell = pDecmpData + i * sizeof(T);
            StoreLE<T>(pCell, T(LoadLE<T>(pCell) + segmin));
        }
    }
    if (m_debugCompression > 10) {
        HexDump("Decompressed Data", pDecmpData, segSize);
        if (m_debugCompression > 10)
            --m_debugCompression;
    }
    return segSize;
}

template size_t COptimalBiasDulo::Inflate<uint8_t>(const uint8_t*, size_t, uint8_t*);
template size_t COptimalBiasDulo::Inflate<uint16_t>(const uint8_t*, size_t, uint8_t*);
template size_t COptimalBiasDulo::Inflate<uint32_t>(const uint8_t*, size_t, uint8_t*);
template size_t COptimalBiasDulo::Inflate<uint64_t>(const uint8_t*, size_t, uint8_t*);
