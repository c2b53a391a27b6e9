// The compressed segment's layout in one place: the header word, the optional segSize, segmin and
// bias fields, and where the non-match stream and the map begin. The decoder, the hint replay,
// the framing and the inspection tools read segments through ParseSegment; the encoder writes
// the same fields through COptimalBiasDulo::EncodeHeader.
//
//   leadWord (4) | segSize (2, when not a standard segment) | segmin (T, when subadd)
//   | bias (T, when algVersion is 1 or subadd) | non-match stream (nonMatchLength) | map | padding
//
// A stored segment (mapCode 0) has the raw bytes right after leadWord and segSize instead.
#pragma once

#include "ByteAccess.h"
#include "OptimalBiasDulo.h"

#include <cstddef>
#include <cstdint>
#include <string>

using SegmentHeader = COptimalBiasDulo::SegmentHeader;

// The smallest segment the writer makes: the header word and at least one more word.
constexpr size_t MIN_SEGMENT_BYTES = 8;
// The most uncompressed bytes of one segment (16-bit data under word-size reduction).
constexpr size_t MAX_SEGMENT_DATA = 2 * COptimalBiasDulo::STD_SEGSIZE;

template <typename T>
constexpr unsigned ByteModeOf()
{
    return sizeof(T) == 1 ? COptimalBiasDulo::BYTE_MODE
           : sizeof(T) == 2 ? COptimalBiasDulo::SHORT_MODE
           : sizeof(T) == 4 ? COptimalBiasDulo::U32B_MODE
                            : COptimalBiasDulo::U64B_MODE;
}

inline SegmentHeader ReadSegmentHeader(const uint8_t* pSeg)
{
    return SegmentHeader::FromWord(LoadLE<uint32_t>(pSeg));
}

// Length of the segment at pSeg as its header states it, or 0 when fewer than MIN_SEGMENT_BYTES
// are available, or the stated length is shorter than that or runs past `available` (which
// BAD_SEGMENT_LENGTH says in a message).
constexpr const char* BAD_SEGMENT_LENGTH = "has a length that is too short or runs past the data";
size_t CheckedSegmentLength(const uint8_t* pSeg, size_t available);

// Uncompressed bytes of the segment at pSeg (whose first MIN_SEGMENT_BYTES are readable), as its
// header states them: STD_SEGSIZE for a standard segment, else its segSize field.
size_t SegmentDataSize(const uint8_t* pSeg);

// The decoder's limit on a segment of T values: a whole number of cells, not none, and no more
// than the largest segment the writer makes.
template <typename T>
constexpr bool SegmentSizeValid(size_t segSize)
{
    return segSize != 0 && segSize % sizeof(T) == 0 && segSize <= MAX_SEGMENT_DATA;
}

// Bits of the cells that a segment of this byteMode holds.
constexpr unsigned ModeBits(unsigned byteMode) { return 8u << byteMode; }

// What the segment headers of a compressed stream say, each segment checked by the decoder's own
// limits (its length, its fields, its size) without being decoded.
struct CStreamWalk
{
    bool whole = true;           // every segment is well formed and the last one ends the data
    size_t segments = 0;         // segments read (up to the faulty one)
    size_t badOffset = 0;        // where the faulty segment starts, when not whole
    std::string problem;         // what is wrong with it, when not whole
    size_t dataBytes = 0;        // uncompressed bytes, byte segments counted as bytes
    size_t byteSegmentBytes = 0; // of which in byte segments (widened to 16-bit cells on request)
    unsigned widestMode = 0;     // the widest byteMode among the segments

    // Bytes the stream expands to with cells of cellBytes (byte segments widen for 2).
    size_t ExpandedBytes(size_t cellBytes) const { return dataBytes + (cellBytes == 2 ? byteSegmentBytes : 0); }
    // "damaged data: segment K at byte offset X <problem>", for a stream that is not whole.
    std::string Damage() const;
};
// cellBytes 1, 2, 4 or 8 also requires every segment to hold cells that expand to that width
// (byte segments for 2 too, widened); 0 accepts any.
CStreamWalk WalkStream(const uint8_t* pCmp, size_t size, size_t cellBytes = 0);

// The fields of one segment of T values, with the offsets of its pieces from the segment's start.
template <typename T>
struct CSegmentFields
{
    SegmentHeader hdr;
    size_t segSize = 0;    // uncompressed bytes
    T segmin = 0;          // 0 when absent
    T bias = 0;            // 0 when absent
    size_t dataOffset = 0; // stored form: the raw bytes; compressed form: the non-match stream
    size_t mapOffset = 0;  // compressed form: the map, nonMatchLength bytes after the stream
};

// Reads the header and the fields of the segLength-byte segment at pSeg (segLength of at least 4).
// False when a field, the stored bytes or the non-match stream would run past segLength.
template <typename T>
bool ParseSegment(const uint8_t* pSeg, size_t segLength, CSegmentFields<T>& fields)
{
    fields.hdr = ReadSegmentHeader(pSeg);
    size_t pos = 4;
    fields.segSize = COptimalBiasDulo::STD_SEGSIZE;
    if (!fields.hdr.stdSegSize) {
        if (2 > segLength - pos)
            return false;
        fields.segSize = LoadLE<uint16_t>(pSeg + pos);
        pos += 2;
    }
    if (fields.hdr.mapCode == COptimalBiasDulo::NOT_COMPRESSED_MC) {
        fields.dataOffset = pos;
        return fields.segSize <= segLength - pos;
    }
    auto readField = [&](T& value) {
        if (sizeof(T) > segLength - pos)
            return false;
        value = LoadLE<T>(pSeg + pos);
        pos += sizeof(T);
        return true;
    };
    if (fields.hdr.subadd && !readField(fields.segmin))
        return false;
    if ((fields.hdr.algVersion == 1 || fields.hdr.subadd) && !readField(fields.bias))
        return false;
    fields.dataOffset = pos;
    fields.mapOffset = pos + fields.hdr.nonMatchLength;
    return fields.hdr.nonMatchLength <= segLength - pos;
}
