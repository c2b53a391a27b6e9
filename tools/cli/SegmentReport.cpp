#include "SegmentReport.h"

#include "NonMatchMask.h"
#include "SegmentFormat.h"

#include <sstream>

namespace {

template <typename T>
bool ReadSegment(const uint8_t* pSeg, size_t length, SSegmentReport& r)
{
    CSegmentFields<T> fields;
    if (!ParseSegment(pSeg, length, fields) || !SegmentSizeValid<T>(fields.segSize))
        return false;
    r.cellBits = 8 * sizeof(T);
    r.segSize = fields.segSize;
    r.planes = 2 * sizeof(T);
    r.compressed = fields.hdr.mapCode == COptimalBiasDulo::COMPRESSED_MC;
    if (!r.compressed) {
        r.fieldBytes = fields.dataOffset;
        return true;
    }
    r.bias = fields.bias;
    r.segmin = fields.segmin;
    r.fieldBytes = fields.dataOffset;
    r.streamBytes = fields.hdr.nonMatchLength;
    r.mapBytes = length - fields.mapOffset;
    const size_t elems = fields.segSize / sizeof(T);
    CNonMatchMask mask;
    if (!mask.Decode(pSeg + fields.mapOffset, pSeg + length, elems * r.planes))
        return false;
    uint8_t blockCounts[MAX_SEGMENT_DATA / 64 + 1];
    for (unsigned plane = 0; plane < r.planes; ++plane)
        r.codedPlanes += mask.CountBlocks(plane * elems, elems, blockCounts) != 0;
    return true;
}

} // namespace

bool ReportSegments(const uint8_t* pChunk, size_t size, std::vector<SSegmentReport>& segments, std::string& damage)
{
    for (size_t pos = 0; pos < size;) {
        SSegmentReport r;
        r.offset = pos;
        r.length = CheckedSegmentLength(pChunk + pos, size - pos);
        bool read = r.length != 0;
        if (read) {
            switch (ReadSegmentHeader(pChunk + pos).byteMode) {
            case COptimalBiasDulo::BYTE_MODE: read = ReadSegment<uint8_t>(pChunk + pos, r.length, r); break;
            case COptimalBiasDulo::SHORT_MODE: read = ReadSegment<uint16_t>(pChunk + pos, r.length, r); break;
            case COptimalBiasDulo::U32B_MODE: read = ReadSegment<uint32_t>(pChunk + pos, r.length, r); break;
            default: read = ReadSegment<uint64_t>(pChunk + pos, r.length, r); break;
            }
        }
        if (!read) {
            std::ostringstream text;
            text << "segment " << segments.size() << " at byte offset " << pos
                 << (r.length == 0 ? " has a length that is too short or runs past the data"
                                   : " has fields or a map that run past it");
            damage = text.str();
            return false;
        }
        segments.push_back(r);
        pos += r.length;
    }
    return true;
}

const char* CellName(unsigned cellBits)
{
    switch (cellBits) {
    case 8: return "8-bit";
    case 16: return "16-bit";
    case 32: return "32-bit";
    default: return "64-bit";
    }
}
