// Segment decoder: expands one compressed segment into its elements of type T.
#include "OptimalBiasDulo.h"

#include "BitOps.h"
#include "ByteAccess.h"
#include "KernelDispatch.h"
#include "NonMatchMask.h"
#include "NonMatchReader.h"
#include "SegmentFormat.h"

#include <algorithm>
#include <cstring>
#include <vector>

namespace {

// Sets `count` cells to `value`: 64 bytes a step (a fixed size the compiler turns into vector
// stores), then eight bytes, then singly.
template <typename T>
void FillCells(uint8_t* pCells, size_t count, T value)
{
    const uint64_t repeated = RepeatCell<T>(value);
    uint64_t block[8];
    for (uint64_t& word : block)
        word = repeated;
    size_t byte = 0;
    for (; byte + 64 <= count * sizeof(T); byte += 64)
        std::memcpy(pCells + byte, block, 64);
    for (; byte + 8 <= count * sizeof(T); byte += 8)
        StoreLE<uint64_t>(pCells + byte, repeated);
    for (; byte < count * sizeof(T); byte += sizeof(T))
        StoreLE<T>(pCells + byte, value);
}

// Below this many non-matches in a block of 64 slots, putting them one by one beats spreading
// the whole block.
constexpr size_t SPARSE_BLOCK = 8;

// Sets the nibble at `shift` of `count` cells to the bytes of pNibbles.
template <typename T>
void MergeNibbles(const uint8_t* pNibbles, size_t count, unsigned shift, uint8_t* pCells)
{
    const T keep = T(~(T(0xF) << shift));
    for (size_t i = 0; i < count; ++i) {
        uint8_t* pCell = pCells + i * sizeof(T);
        StoreLE<T>(pCell, T((LoadLE<T>(pCell) & keep) | T(T(pNibbles[i]) << shift)));
    }
}

// The same for a whole block of 64 cells. Kept out of line, where the compiler sees that the two
// buffers do not overlap and the count is fixed, so that it vectorizes the loop.
template <typename T>
__attribute__((noinline)) void MergeBlock(const uint8_t* __restrict pNibbles, unsigned shift,
                                          uint8_t* __restrict pCells)
{
    if constexpr (sizeof(T) == 1) {
        // Eight byte cells per word: a nibble shifted by at most 4 stays in its byte.
        const uint64_t keep = ~(0x0F0F0F0F0F0F0F0Full << shift);
        for (unsigned i = 0; i < 64; i += 8)
            StoreLE<uint64_t>(pCells + i,
                              (LoadLE<uint64_t>(pCells + i) & keep) | (LoadLE<uint64_t>(pNibbles + i) << shift));
    } else {
        const T keep = T(~(T(0xF) << shift));
        for (unsigned i = 0; i < 64; ++i) {
            uint8_t* pCell = pCells + i * sizeof(T);
            // For 16-bit cells a multiplication rather than a shift: the shift would be done in
            // int, which the vectorized loop would have to widen to and narrow from.
            const T nibble = sizeof(T) == 2 ? T(T(pNibbles[i]) * T(1u << shift)) : T(T(pNibbles[i]) << shift);
            StoreLE<T>(pCell, T((LoadLE<T>(pCell) & keep) | nibble));
        }
    }
}

// Sets the nibble at `shift` of every non-match cell of one plane to the next value from pValues;
// the cells already hold the bias, which is what a match leaves. Dense blocks of 64 slots are
// spread into a row of nibbles and merged whole; sparse ones are put cell by cell.
template <typename T>
void PutPlane(const CNonMatchMask& mask, size_t firstSlot, size_t elems, unsigned shift, uint8_t biasNib,
              const uint8_t* pValues, uint8_t* pCells, SlotSpreadFn spread)
{
    const T keep = T(~(T(0xF) << shift));
    uint8_t nibbles[64];
    for (size_t elem = 0; elem < elems; elem += 64) {
        uint64_t bits = mask.BitsAt(firstSlot + elem);
        const size_t count = std::min<size_t>(64, elems - elem);
        if (count < 64)
            bits &= LowBits(unsigned(count));
        uint8_t* pBlock = pCells + elem * sizeof(T);
        if (BitCount(bits) > SPARSE_BLOCK) {
            pValues += spread(bits, pValues, biasNib, nibbles);
            if (count == 64)
                MergeBlock<T>(nibbles, shift, pBlock);
            else
                MergeNibbles<T>(nibbles, count, shift, pBlock);
            continue;
        }
        for (; bits != 0; bits &= bits - 1) {
            uint8_t* pCell = pBlock + unsigned(__builtin_ctzll(bits)) * sizeof(T);
            StoreLE<T>(pCell, T((LoadLE<T>(pCell) & keep) | T(T(*pValues++) << shift)));
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

    // Plane by plane: the plane's non-match nibbles from the stream, then put into their cells.
    FillCells<TCell>(pDecmpData, elems, bias);
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
        PutPlane<TCell>(mask, firstSlot, elems, shift, biasNib, values, pDecmpData, spread);
    }

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
