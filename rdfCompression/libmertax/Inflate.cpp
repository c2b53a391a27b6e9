// Segment decoder: expands one compressed segment into its elements of type T.
#include "OptimalBiasDulo.h"

#include "ByteAccess.h"
#include "MapEntry.h"
#include "NonMatchReader.h"

#include <cstring>

namespace {

// Write cursor over the slots of a segment in plane-major order: all elements of the most
// significant nibble plane, then the next plane, down to the least significant one.
template <typename T>
class CSlotCursor
{
public:
    CSlotCursor(uint8_t* pOut, size_t elems, T bias)
        : m_pOut(pOut), m_elems(elems), m_elem(0), m_bias(bias), m_nibShift(8 * sizeof(T) - 4),
          m_biasNibMask(T(T(0xF) << m_nibShift))
    {
    }

    uint8_t BiasNib() const { return uint8_t((m_bias >> m_nibShift) & 0xF); }

    // Moves one slot on; false once the last slot of the last plane has been passed.
    bool Advance()
    {
        if (++m_elem < m_elems)
            return true;
        m_elem = 0;
        return NextPlane();
    }

    // Passes `count` matching slots, carrying into the following planes; false when they reach
    // or pass the last slot.
    bool Skip(size_t count)
    {
        m_elem += count;
        while (m_elem >= m_elems) {
            m_elem -= m_elems;
            if (!NextPlane())
                return false;
        }
        return true;
    }

    // Sets the nibble of the slot `offset` places ahead of the current one, in the same plane; the
    // element already holds the bias in every other plane.
    void Put(uint8_t nibble, size_t offset = 0)
    {
        uint8_t* pCell = m_pOut + (m_elem + offset) * sizeof(T);
        const T cell = LoadLE<T>(pCell);
        StoreLE<T>(pCell, T((cell & T(~m_biasNibMask)) | (T(nibble) << m_nibShift)));
    }

    // Slots left in the current plane, the current one included.
    size_t LeftInPlane() const { return m_elems - m_elem; }

    // Moves `count` slots on within the plane (count <= LeftInPlane()); false once the last slot
    // of the last plane has been passed.
    bool AdvanceInPlane(size_t count)
    {
        m_elem += count;
        if (m_elem < m_elems)
            return true;
        m_elem = 0;
        return NextPlane();
    }

private:
    bool NextPlane()
    {
        m_biasNibMask = T(m_biasNibMask >> 4);
        if (m_biasNibMask == 0)
            return false;
        m_nibShift -= 4;
        return true;
    }

    uint8_t* m_pOut;
    size_t m_elems;
    size_t m_elem;
    T m_bias;
    unsigned m_nibShift;
    T m_biasNibMask;
};

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
    for (size_t i = elems; i-- > 0;)
        StoreLE<T>(pDecmpData + i * sizeof(T), bias);

    CSlotCursor<T> slot(pDecmpData, elems, bias);
    CNonMatchReader nonMatches(pCmpData + pos, hdr.nonMatchLength, slot.BiasNib());
    auto putNonMatch = [&]() {
        uint8_t nibble;
        if (!nonMatches.Next(slot.BiasNib(), nibble))
            return false;
        slot.Put(nibble);
        return true;
    };

    // The map ends where its last slot is classified; running out of map or stream before that
    // means the segment is damaged.
    bool open = true;
    while (open) {
        if (pMap == pMapEnd)
            return 0;
        const uint8_t entry = *pMap++;
        if (entry & 0x80) {
            size_t matches;
            if (!ReadMatchSkip(entry, pMap, pMapEnd, matches))
                return 0;
            if (!slot.Skip(matches))
                break;
            if (!putNonMatch())
                return 0;
            open = slot.Advance();
        } else if (entry & 0x40) {
            const unsigned count = entry & 0x3F;
            if (count <= slot.LeftInPlane() && nonMatches.NibblesLeft() >= count * CNonMatchReader::NIBBLES_PER_SLOT) {
                // Within one plane, with stream enough for every slot: the bias nibble stays, the
                // slots are written in place and the stream needs no test per nibble.
                const uint8_t biasNib = slot.BiasNib();
                for (unsigned n = 0; n < count; ++n)
                    slot.Put(nonMatches.NextWithin(biasNib), n);
                open = slot.AdvanceInPlane(count);
            } else {
                for (unsigned n = count; n > 0 && open; --n) {
                    if (!putNonMatch())
                        return 0;
                    open = slot.Advance();
                }
            }
        } else if (slot.LeftInPlane() >= 6 && nonMatches.NibblesLeft() >= 6 * CNonMatchReader::NIBBLES_PER_SLOT) {
            // A group within one plane, stream to spare: only its non-matches (0 bits, bit 5
            // first) are visited.
            const uint8_t biasNib = slot.BiasNib();
            for (unsigned zeros = ~entry & 0x3Fu; zeros != 0;) {
                const unsigned bit = 31 - unsigned(__builtin_clz(zeros));
                zeros &= ~(1u << bit);
                slot.Put(nonMatches.NextWithin(biasNib), 5 - bit);
            }
            open = slot.AdvanceInPlane(6);
        } else {
            for (unsigned bit = 0x20; bit != 0 && open; bit >>= 1) {
                if ((entry & bit) == 0 && !putNonMatch())
                    return 0;
                open = slot.Advance();
            }
        }
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
