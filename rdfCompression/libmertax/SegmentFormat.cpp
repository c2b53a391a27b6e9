// The segment header word, the framing's view of a segment, and the writer of the header fields.
#include "SegmentFormat.h"

#include "Report.h"

#include <algorithm>
#include <iostream>
#include <sstream>

COptimalBiasDulo::SegmentHeader COptimalBiasDulo::SegmentHeader::FromWord(uint32_t word)
{
    SegmentHeader h;
    h.stdSegSize = word & 0x1;
    h.mapCode = (word >> 1) & 0x1;
    h.byteMode = (word >> 2) & 0x3;
    h.algVersion = (word >> 4) & 0x3;
    h.subadd = (word >> 6) & 0x1;
    h.nonMatchLength = (word >> 7) & 0xFFF;
    h.compSegSize = (word >> 19) & 0x1FFF;
    return h;
}

uint32_t COptimalBiasDulo::SegmentHeader::ToWord() const
{
    return uint32_t(stdSegSize) | uint32_t(mapCode) << 1 | uint32_t(byteMode) << 2 |
           uint32_t(algVersion) << 4 | uint32_t(subadd) << 6 | uint32_t(nonMatchLength) << 7 |
           uint32_t(compSegSize) << 19;
}

size_t CheckedSegmentLength(const uint8_t* pSeg, size_t available)
{
    if (available < MIN_SEGMENT_BYTES)
        return 0;
    const size_t compSegSize = ReadSegmentHeader(pSeg).compSegSize;
    if (compSegSize < MIN_SEGMENT_BYTES || compSegSize > available)
        return 0;
    return compSegSize;
}

size_t SegmentDataSize(const uint8_t* pSeg)
{
    return ReadSegmentHeader(pSeg).stdSegSize ? COptimalBiasDulo::STD_SEGSIZE : LoadLE<uint16_t>(pSeg + 4);
}

namespace {

// Why the decoder would refuse the segLength-byte segment of T values at pSeg before decoding its
// map and stream; empty when it would not.
template <typename T>
std::string SegmentDefectOf(const uint8_t* pSeg, size_t segLength)
{
    CSegmentFields<T> fields;
    if (!ParseSegment(pSeg, segLength, fields))
        return "has fields or stored bytes that run past its length";
    if (SegmentSizeValid<T>(fields.segSize))
        return std::string();
    std::ostringstream text;
    text << "claims " << fields.segSize << " bytes of " << 8 * sizeof(T) << "-bit cells (1 to " << MAX_SEGMENT_DATA
         << " bytes of whole cells)";
    return text.str();
}

std::string SegmentDefect(const uint8_t* pSeg, size_t segLength)
{
    switch (ReadSegmentHeader(pSeg).byteMode) {
    case COptimalBiasDulo::BYTE_MODE:
        return SegmentDefectOf<uint8_t>(pSeg, segLength);
    case COptimalBiasDulo::SHORT_MODE:
        return SegmentDefectOf<uint16_t>(pSeg, segLength);
    case COptimalBiasDulo::U32B_MODE:
        return SegmentDefectOf<uint32_t>(pSeg, segLength);
    default:
        return SegmentDefectOf<uint64_t>(pSeg, segLength);
    }
}

// Whether a segment of byteMode expands to cells of cellBytes: its own width, or bytes widened to
// 16-bit cells.
bool ModeFitsCells(unsigned byteMode, size_t cellBytes)
{
    const size_t bytes = ModeBits(byteMode) / 8;
    return cellBytes == bytes || (cellBytes == 2 && byteMode == COptimalBiasDulo::BYTE_MODE);
}

} // namespace

CStreamWalk WalkStream(const uint8_t* pCmp, size_t size, size_t cellBytes)
{
    CStreamWalk walk;
    const auto fail = [&walk](size_t pos, std::string problem) {
        walk.whole = false;
        walk.badOffset = pos;
        walk.problem = std::move(problem);
        return walk;
    };
    for (size_t pos = 0; pos < size; ++walk.segments) {
        const uint8_t* pSeg = pCmp + pos;
        // The header is read only once the length says that it is there.
        const size_t length = CheckedSegmentLength(pSeg, size - pos);
        if (length == 0)
            return fail(pos, BAD_SEGMENT_LENGTH);
        std::string problem = SegmentDefect(pSeg, length);
        if (!problem.empty())
            return fail(pos, std::move(problem));
        const unsigned mode = ReadSegmentHeader(pSeg).byteMode;
        if (cellBytes != 0 && !ModeFitsCells(mode, cellBytes))
            return fail(pos, "holds " + std::to_string(ModeBits(mode)) + "-bit cells, not " +
                                 std::to_string(8 * cellBytes) + "-bit ones");
        const size_t bytes = SegmentDataSize(pSeg);
        walk.dataBytes += bytes;
        if (mode == COptimalBiasDulo::BYTE_MODE)
            walk.byteSegmentBytes += bytes;
        walk.widestMode = std::max(walk.widestMode, mode);
        pos += length;
    }
    return walk;
}

std::string CStreamWalk::Damage() const
{
    std::ostringstream text;
    text << "damaged data: segment " << segments << " at byte offset " << badOffset << " " << problem;
    return text.str();
}

bool COptimalBiasDulo::SegmentSizeAllowed(uint16_t segSize) const
{
    const size_t limit = m_reduceWordSize ? MAX_SEGMENT_DATA : STD_SEGSIZE;
    if (segSize <= limit)
        return true;
    ReportFailure(std::cout, "Uncompressed segment size of ", segSize, " greater than max ", STD_SEGSIZE);
    return false;
}

template <typename T>
size_t COptimalBiasDulo::EncodeHeader(const uint16_t& segSize, T segmin, const T& bias, uint8_t* pCmpBuff)
{
    if (!SegmentSizeAllowed(segSize))
        return 0;
    SegmentHeader hdr = SegmentHeader::FromWord(0);
    hdr.stdSegSize = segSize == STD_SEGSIZE;
    hdr.byteMode = ByteModeOf<T>();
    hdr.algVersion = (segmin != 0 || bias != 0) ? 1 : 0;
    hdr.subadd = segmin != 0;
    StoreLE<uint32_t>(pCmpBuff, hdr.ToWord());
    size_t hdrBytes = 4;
    if (!hdr.stdSegSize) {
        StoreLE<uint16_t>(pCmpBuff + hdrBytes, segSize);
        hdrBytes += 2;
    }
    if (segmin != 0) {
        StoreLE<T>(pCmpBuff + hdrBytes, segmin);
        hdrBytes += sizeof(T);
    }
    if (hdr.algVersion == 1) {
        StoreLE<T>(pCmpBuff + hdrBytes, bias);
        hdrBytes += sizeof(T);
    }
    return hdrBytes;
}

template size_t COptimalBiasDulo::EncodeHeader<uint8_t>(const uint16_t&, uint8_t, const uint8_t&, uint8_t*);
template size_t COptimalBiasDulo::EncodeHeader<uint16_t>(const uint16_t&, uint16_t, const uint16_t&, uint8_t*);
template size_t COptimalBiasDulo::EncodeHeader<uint32_t>(const uint16_t&, uint32_t, const uint32_t&, uint8_t*);
template size_t COptimalBiasDulo::EncodeHeader<uint64_t>(const uint16_t&, uint64_t, const uint64_t&, uint8_t*);
