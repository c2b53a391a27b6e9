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

// Adds `value` to `count` cells, the sum wrapping in T also in wider cells: blocks of 64 with a
// fixed count, which the compiler vectorizes, then the rest.
template <typename T, typename TCell>
void AddToEach(uint8_t* pCells, size_t count, T value)
{
    const auto add = [pCells, value](size_t i) {
        uint8_t* pCell = pCells + i * sizeof(TCell);
        StoreLE<TCell>(pCell, T(LoadLE<TCell>(pCell) + value));
    };
    size_t i = 0;
    for (; count - i >= 64; i += 64)
        for (size_t k = 0; k < 64; ++k)
            add(i + k);
    for (; i < count; ++i)
        add(i);
}

// Below this many non-matches among a plane's 64 slots, putting them one by one beats spreading
// the block.
constexpr size_t SPARSE_PLANE = 8;

// Writes one row of bytes from its two nibble planes (high half first; their slots from
// firstSlot and firstSlot + elems), taking the non-matches' nibbles from pHigh and pLow; a match
// leaves the bias byte's nibble. In each block of 64 bytes a dense plane is spread into a row of
// nibbles, and the two rows (a row of the bias nibble for a sparse plane) are joined into the
// block; a sparse plane's non-matches are put into it one by one.
void PutRow(const CNonMatchMask& mask, size_t firstSlot, size_t elems, uint8_t biasByte, const uint8_t* pHigh,
            const uint8_t* pLow, const uint8_t* const pBlockCounts[2], uint8_t* pRow, SlotSpreadFn spread)
{
    uint8_t high[64], low[64];
    uint8_t highFill[64], lowFill[64];
    std::memset(highFill, biasByte >> 4, 64);
    std::memset(lowFill, biasByte & 0xF, 64);
    for (size_t elem = 0, block = 0; elem < elems; elem += 64, ++block) {
        const size_t count = std::min<size_t>(64, elems - elem);
        const uint64_t valid = count < 64 ? LowBits(unsigned(count)) : ~uint64_t(0);
        uint64_t highBits = mask.BitsAt(firstSlot + elem) & valid;
        uint64_t lowBits = mask.BitsAt(firstSlot + elems + elem) & valid;
        const uint8_t* pHighNibbles = highFill;
        if (pBlockCounts[0][block] > SPARSE_PLANE) {
            pHigh += spread(highBits, pHigh, biasByte >> 4, high);
            pHighNibbles = high;
            highBits = 0;
        }
        const uint8_t* pLowNibbles = lowFill;
        if (pBlockCounts[1][block] > SPARSE_PLANE) {
            pLow += spread(lowBits, pLow, biasByte & 0xF, low);
            pLowNibbles = low;
            lowBits = 0;
        }
        uint8_t* pBlock = pRow + elem;
        if (count == 64) {
            // Eight bytes to a word: a nibble shifted by 4 stays in its byte.
            for (unsigned i = 0; i < 64; i += 8)
                StoreLE<uint64_t>(pBlock + i,
                                  LoadLE<uint64_t>(pHighNibbles + i) << 4 | LoadLE<uint64_t>(pLowNibbles + i));
        } else {
            for (size_t i = 0; i < count; ++i)
                pBlock[i] = uint8_t(pHighNibbles[i] << 4 | pLowNibbles[i]);
        }
        for (; highBits != 0; highBits &= highBits - 1) {
            uint8_t& byte = pBlock[__builtin_ctzll(highBits)];
            byte = uint8_t((byte & 0x0F) | *pHigh++ << 4);
        }
        for (; lowBits != 0; lowBits &= lowBits - 1) {
            uint8_t& byte = pBlock[__builtin_ctzll(lowBits)];
            byte = uint8_t((byte & 0xF0) | *pLow++);
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
    if (!SegmentSizeValid<T>(segSize))
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

    // Each byte of the cells is built in a row of its own from its two planes, and the cells are
    // put together from the rows at the end: one store per cell, not a read-modify-write of every
    // cell for every plane. Byte cells are their own row.
    uint8_t rowStore[sizeof(TCell) == 1 ? 1 : MAX_SEGMENT_DATA];
    uint8_t* const pRows = sizeof(TCell) == 1 ? pDecmpData : rowStore;
    // The stream may run on past nonMatchLength into the map, as encoders that dropped a segment's
    // last pending nibble wrote it and as the reference decoder reads it; never past the segment.
    CNonMatchReader nonMatches(pCmpData + fields.dataOffset, segLength - fields.dataOffset,
                               uint8_t(bias >> (8 * sizeof(T) - 4)));
    // The non-match nibbles of a byte's high and low plane, taken from the stream in that order,
    // and the non-matches in each of their blocks of 64 slots.
    uint8_t values[2][MAX_SEGMENT_DATA + CNonMatchReader::OUTPUT_SLACK];
    uint8_t blockCounts[2][MAX_SEGMENT_DATA / 64 + 1];
    const uint8_t* const pBlockCounts[2] = {blockCounts[0], blockCounts[1]};
    const SlotSpreadFn spread = ActiveKernels().spread;
    for (unsigned byte = sizeof(T); byte-- > 0;) {
        const uint8_t biasByte = uint8_t(bias >> (8 * byte));
        const size_t firstSlot = 2 * (sizeof(T) - 1 - byte) * elems;
        uint8_t* const pRow = pRows + byte * elems;
        const size_t counts[2] = {mask.CountBlocks(firstSlot, elems, blockCounts[0]),
                                  mask.CountBlocks(firstSlot + elems, elems, blockCounts[1])};
        if (counts[0] + counts[1] == 0) {
            FillRow(pRow, elems, biasByte);
            continue;
        }
        for (unsigned half = 0; half < 2; ++half) {
            const uint8_t biasNib = half == 0 ? biasByte >> 4 : biasByte & 0xF;
            if (!nonMatches.Take(counts[half], biasNib, values[half]))
                return 0;
            // The spread reads 16 bytes ahead; they are defined, though never used.
            std::memset(values[half] + counts[half], 0, 16);
        }
        PutRow(mask, firstSlot, elems, biasByte, values[0], values[1], pBlockCounts, pRow, spread);
    }
    if constexpr (sizeof(TCell) > 1)
        InterleaveRows<T, TCell>(pRows, elems, elems, pDecmpData);

    if (fields.hdr.subadd)
        AddToEach<T, TCell>(pDecmpData, elems, segmin);
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
