// Bias hint: the histogram-optimal bias of a segment recovered from its compressed form, by
// replaying its map and non-match stream plane by plane without expanding it.
#include "OptimalBiasDulo.h"

#include "BitOps.h"
#include "ByteAccess.h"
#include "FindDuloBias.h"
#include "MapEntry.h"
#include "NonMatchReader.h"
#include "SegmentFormat.h"

#include <algorithm>
#include <array>
#include <type_traits>

namespace {

// Books slots into the per-plane histograms. Matches are held in rowMatches until their plane
// is complete. Only planes 0 .. P-2 are replayed: the hint keeps the bias's lowest nibble.
template <typename T>
class CHintReplay
{
public:
    static constexpr unsigned PLANES = 2 * sizeof(T);

    CHintReplay(size_t elems, T bias) : m_elems(elems), m_bias(bias), m_remRowElems(int32_t(elems)) {}

    bool Done() const { return m_done; }
    int32_t RemRowElems() const { return m_remRowElems; }
    uint8_t BiasNib() const { return uint8_t((m_bias >> (4 * (PLANES - 1 - m_plane))) & 0xF); }

    // `count` matching slots, carried across plane ends.
    void Matches(size_t count)
    {
        while (!m_done && count >= size_t(m_remRowElems)) {
            count -= size_t(m_remRowElems);
            m_rowMatches += size_t(m_remRowElems);
            m_remRowElems = 0;
            BookPlane();
        }
        if (!m_done) {
            m_rowMatches += count;
            m_remRowElems -= int32_t(count);
        }
    }

    // `count` (at most RemRowElems()) non-match slots with one nibble.
    void NonMatches(uint8_t nibble, size_t count)
    {
        m_histo[m_plane][nibble] += count;
        m_remRowElems -= int32_t(count);
        if (m_remRowElems == 0)
            BookPlane();
    }

    uint64_t Result() const
    {
        uint64_t result = 0;
        for (unsigned plane = 0; plane < PLANES; ++plane)
            result = result << 4 | GetMax(m_histo[plane]);
        return result;
    }

private:
    void BookPlane()
    {
        m_histo[m_plane][BiasNib()] += m_rowMatches;
        if (m_plane == PLANES - 2) {
            m_histo[PLANES - 1][m_bias & 0xF] = 1;
            m_done = true;
            return;
        }
        ++m_plane;
        m_remRowElems = int32_t(m_elems);
        m_rowMatches = 0;
    }

    size_t m_elems;
    T m_bias;
    unsigned m_plane = 0;
    int32_t m_remRowElems;
    size_t m_rowMatches = 0;
    bool m_done = false;
    std::array<HISTO, PLANES> m_histo{};
};

// Replay from a non-match run entry on: its count is not used, and the rest of the planes are
// attributed from the stream alone. The repeat counter wraps below zero, so one nibble mostly
// covers 255 slots at a time; a new nibble is read only when the counter comes out at 0.
template <typename T>
bool ReplayFromRunEntry(CHintReplay<T>& replay, CNonMatchReader& stream)
{
    uint8_t& nonMatchCnt = stream.RepeatsOwed();
    bool readNext = nonMatchCnt == 0;
    while (!replay.Done()) {
        size_t run;
        if (readNext) {
            uint8_t x;
            if (!stream.ReadNibble(x))
                return false;
            if (x != replay.BiasNib()) {
                stream.SetLastLiteral(x);
                run = 1;
            } else {
                uint8_t runLength;
                if (!stream.ReadRunLength(replay.BiasNib(), runLength))
                    return false;
                nonMatchCnt = uint8_t(runLength - 2);
                run = nonMatchCnt != 0 ? nonMatchCnt + 1u : 1u;
            }
        } else {
            --nonMatchCnt;
            run = nonMatchCnt != 0 ? nonMatchCnt + 1u : 1u;
        }
        run = std::min(run, size_t(replay.RemRowElems()));
        replay.NonMatches(stream.LastLiteral(), run);
        nonMatchCnt = uint8_t(nonMatchCnt - run);
        readNext = nonMatchCnt == 0;
    }
    return true;
}

} // namespace

template <typename T>
bool COptimalBiasDulo::GetBiasHint(const uint8_t* pCmpData, size_t segLength, T* biasHint)
{
    if (segLength < MIN_SEGMENT_BYTES)
        return false;
    const SegmentHeader hdr = ReadSegmentHeader(pCmpData);
    if (hdr.mapCode == NOT_COMPRESSED_MC)
        return false;
    if constexpr (std::is_same_v<T, uint16_t>) {
        // 16-bit data coded as bytes: the hint is a byte.
        if (hdr.byteMode == BYTE_MODE) {
            uint8_t byteHint = 0;
            if (!GetBiasHint<uint8_t>(pCmpData, segLength, &byteHint))
                return false;
            *biasHint = byteHint;
            return true;
        }
    }
    CSegmentFields<T> fields;
    if (!ParseSegment(pCmpData, segLength, fields))
        return false;
    // Short segments say too little about the data to come.
    if (!hdr.stdSegSize && fields.segSize < STD_SEGSIZE / 2)
        return false;
    const size_t elems = fields.segSize / sizeof(T);
    const T segmin = fields.segmin;
    const T bias = fields.bias;
    const uint8_t* pMap = pCmpData + fields.mapOffset;
    const uint8_t* const pMapEnd = pCmpData + segLength;

    CHintReplay<T> replay(elems, bias);
    CNonMatchReader stream(pCmpData + fields.dataOffset, segLength - fields.dataOffset, replay.BiasNib());
    auto nonMatch = [&]() {
        uint8_t nibble;
        if (!stream.Next(replay.BiasNib(), nibble))
            return false;
        replay.NonMatches(nibble, 1);
        return true;
    };
    while (!replay.Done()) {
        if (pMap == pMapEnd)
            return false;
        const uint8_t entry = *pMap++;
        if (entry & 0x80) {
            size_t matches;
            if (!ReadMatchSkip(entry, pMap, pMapEnd, matches))
                return false;
            replay.Matches(matches);
            if (!replay.Done() && !nonMatch())
                return false;
        } else if (entry & 0x40) {
            if ((entry & 0x3F) != 0 && !ReplayFromRunEntry(replay, stream))
                return false;
        } else if (replay.RemRowElems() > 6) {
            // No plane ends inside the group: its matches are booked together, its non-matches
            // read in order.
            const size_t matches = BitCount(entry);
            replay.Matches(matches);
            for (size_t nonMatches = 6 - matches; nonMatches != 0; --nonMatches)
                if (!nonMatch())
                    return false;
        } else {
            for (unsigned bit = 0x20; bit != 0 && !replay.Done(); bit >>= 1) {
                if (entry & bit)
                    replay.Matches(1);
                else if (!nonMatch())
                    return false;
            }
        }
    }
    *biasHint = T(replay.Result() + segmin);
    return true;
}

template bool COptimalBiasDulo::GetBiasHint<uint8_t>(const uint8_t*, size_t, uint8_t*);
template bool COptimalBiasDulo::GetBiasHint<uint16_t>(const uint8_t*, size_t, uint16_t*);
template bool COptimalBiasDulo::GetBiasHint<uint32_t>(const uint8_t*, size_t, uint32_t*);
template bool COptimalBiasDulo::GetBiasHint<uint64_t>(const uint8_t*, size_t, uint64_t*);
