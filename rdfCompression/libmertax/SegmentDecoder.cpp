// Segment decoder: expands one compressed segment into its elements of type T.
#include "OptimalBiasDulo.h"

#include "BitOps.h"
#include "ByteAccess.h"
#include "ByteRows.h"
#include "KernelDispatch.h"
#include "NonMatchMask.h"
#include "NonMatchReader.h"
#include "SegmentFormat.h"

#include <algorithm>
#include <cstring>
#include <vector>

namespace {

// Sets `count` bytes to `value`, 64 a step (a fixed size the compiler turns into vector stores;
// a 4 KiB memset may go to a string instruction that does no better here).
void FillRow(uint8_t* pRow, size_t count, uint8_t value)
{
    uint8_t block[64];
    std::memset(block, value, 64);
    size_t i = 0;
    for (; i + 64 <= count; i += 64)
        std::memcpy(pRow + i, block, 64);
    std::memset(pRow + i, value, count - i);
}

// Below this many non-matches in a block of 64 slots, putting them one by one beats spreading
// the whole block.
constexpr size_t SPARSE_BLOCK = 8;

// Sets the nibble at `shift` (0 or 4) of `count` bytes to the bytes of pNibbles.
void MergeNibbles(const uint8_t* pNibbles, size_t count, unsigned shift, uint8_t* pBytes)
{
    const uint8_t keep = uint8_t(~(0xF << shift));
    for (size_t i = 0; i < count; ++i)
        pBytes[i] = uint8_t((pBytes[i] & keep) | pNibbles[i] << shift);
}

// The same for a whole block of 64 bytes, eight to a word: a nibble shifted by at most 4 stays in
// its byte.
void MergeBlock(const uint8_t* pNibbles, unsigned shift, uint8_t* pBytes)
{
    const uint64_t keep = ~(0x0F0F0F0F0F0F0F0Full << shift);
    for (unsigned i = 0; i < 64; i += 8)
        StoreLE<uint64_t>(pBytes + i, (LoadLE<uint64_t>(pBytes + i) & keep) | (LoadLE<uint64_t>(pNibbles + i) << shift));
}

// Sets the nibble at `shift` (0 or 4) of every non-match byte of one plane's row to the next value
// from pValues; the row already holds the bias, which is what a match leaves. Dense blocks of 64
// slots are spread into a row of nibbles and merged whole; sparse ones are put byte by byte.
void PutPlane(const CNonMatchMask& mask, size_t firstSlot, size_t elems, unsigned shift, uint8_t biasNib,
              const uint8_t* pValues, uint8_t* pRow, SlotSpreadFn spread)
{
    const uint8_t keep = uint8_t(~(0xF << shift));
    uint8_t nibbles[64];
    for (size_t elem = 0; elem < elems; elem += 64) {
        uint64_t bits = mask.BitsAt(firstSlot + elem);
        const size_t count = std::min<size_t>(64, elems - elem);
        if (count < 64)
            bits &= LowBits(unsigned(count));
        uint8_t* pBlock = pRow + elem;
        if (BitCount(bits) > SPARSE_BLOCK) {
            pValues += spread(bits, pValues, biasNib, nibbles);
            if (count == 64)
                MergeBlock(nibbles, shift, pBlock);
            else
                MergeNibbles(nibbles, count, shift, pBlock);
            continue;
        }
        for (; bits != 0; bits &= bits - 1) {
            uint8_t& byte = pBlock[__builtin_ctzll(bits)];
            byte = uint8_t((byte & keep) | *pValues++ << shift);
        }
    }
}

} // namespace

template <typename T, typename TCell>
size_t COptimalBiasDulo::Inflate(const uint8_t* pCmpData, size_t segLength, uint8_t* pDecmpData)
{
    CSegmentFields<T> fields;
    if (!ParseSegment(pCmpData, segLength, fields))
        return 0;
    const size_t segSize = fields.segSize;
    if (segSize == 0 || segSize % sizeof(T) != 0 || segSize > MAX_SEGMENT_DATA)
        return 0;

    if (fields.hdr.mapCode == NOT_COMPRESSED_MC) {
        const uint8_t* pRaw = pCmpData + fields.dataOffset;
        if (sizeof(TCell) == sizeof(T)) {
            std::memcpy(pDecmpData, pRaw, segSize);
        } else {
            for (size_t i = 0; i < segSize; ++i)
                StoreLE<TCell>(pDecmpData + i * sizeof(TCell), pRaw[i]);
        }
        return segSize;
    }

    const T segmin = fields.segmin;
    const T bias = fields.bias;
    const size_t elems = segSize / sizeof(T);
    constexpr unsigned PLANES = 2 * sizeof(T);
    CNonMatchMask mask;
    if (!mask.Decode(pCmpData + fields.mapOffset, pCmpData + segLength, elems * PLANES))
        return 0;

    // Each byte of the cells is built in a row of its own, both its planes merged there a byte at
    // a time, and the cells are put together from the rows at the end: one store per cell, not a
    // read-modify-write of every cell for every plane. Byte cells are their own row.
    uint8_t rowStore[sizeof(TCell) == 1 ? 1 : MAX_SEGMENT_DATA];
    uint8_t* const pRows = sizeof(TCell) == 1 ? pDecmpData : rowStore;
    for (unsigned b = 0; b < sizeof(T); ++b)
        FillRow(pRows + b * elems, elems, uint8_t(bias >> (8 * b)));
    // The stream may run on past nonMatchLength into the map, as encoders that dropped a segment's
    // last pending nibble wrote it and as the reference decoder reads it; never past the segment.
    CNonMatchReader nonMatches(pCmpData + fields.dataOffset, segLength - fields.dataOffset,
                               uint8_t(bias >> (8 * sizeof(T) - 4)));
    uint8_t values[MAX_SEGMENT_DATA + CNonMatchReader::OUTPUT_SLACK];
    const SlotSpreadFn spread = ActiveKernels().spread;
    for (unsigned plane = 0; plane < PLANES; ++plane) {
        const unsigned shift = 4 * (PLANES - 1 - plane);
        const size_t firstSlot = plane * elems;
        const size_t count = mask.Count(firstSlot, elems);
        if (count == 0)
            continue;
        const uint8_t biasNib = uint8_t(bias >> shift) & 0xF;
        if (!nonMatches.Take(count, biasNib, values))
            return 0;
        // The spread reads 16 bytes ahead; they are defined, though never used.
        std::memset(values + count, 0, 16);
        PutPlane(mask, firstSlot, elems, shift % 8, biasNib, values, pRows + shift / 8 * elems, spread);
    }
    if constexpr (sizeof(TCell) > 1)
        InterleaveRows<T, TCell>(pRows, elems, elems, pDecmpData);

    if (fields.hdr.subadd) {
        // The sum wraps in T, also in wider cells.
        for (size_t i = 0; i < elems; ++i) {
            uint8_t* pCell = pDecmpData + i * sizeof(TCell);
            StoreLE<TCell>(pCell, T(LoadLE<TCell>(pCell) + segmin));
        }
    }
    if (m_debugCompression > 10) {
        // The dump shows the segment's values as bytes of T, before any widening, at the output.
        if (sizeof(TCell) == sizeof(T)) {
            HexDump("Decompressed Data", pDecmpData, segSize);
        } else {
            std::vector<uint8_t> narrow(segSize);
            for (size_t i = 0; i < elems; ++i)
                StoreLE<T>(narrow.data() + i * sizeof(T), T(LoadLE<TCell>(pDecmpData + i * sizeof(TCell))));
            HexDump("Decompressed Data", narrow.data(), segSize, pDecmpData);
        }
        if (m_debugCompression > 10)
            --m_debugCompression;
    }
    return segSize;
}

template size_t COptimalBiasDulo::Inflate<uint8_t>(const uint8_t*, size_t, uint8_t*);
template size_t COptimalBiasDulo::Inflate<uint8_t, uint16_t>(const uint8_t*, size_t, uint8_t*);
template size_t COptimalBiasDulo::Inflate<uint16_t>(const uint8_t*, size_t, uint8_t*);
template size_t COptimalBiasDulo::Inflate<uint32_t>(const uint8_t*, size_t, uint8_t*);
template size_t COptimalBiasDulo::Inflate<uint64_t>(const uint8_t*, size_t, uint8_t*);
