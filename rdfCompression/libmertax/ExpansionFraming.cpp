// Expansion of a compressed buffer: the walk from segment to segment by their compSegSize, the
// dispatch of each segment to the decoder of its cell type, and the widening of byte segments.
#include "OptimalBiasDulo.h"

#include "ExpansionFailure.h"
#include "ParallelSegments.h"
#include "Report.h"
#include "SegmentFormat.h"

#include <iostream>
#include <vector>

size_t COptimalBiasDulo::ExpandedSegmentSize(const uint8_t* pSeg) const
{
    const size_t bytes = SegmentDataSize(pSeg);
    return ReadSegmentHeader(pSeg).byteMode == BYTE_MODE && m_inflateWordSize == 2 ? 2 * bytes : bytes;
}

namespace {

void ReportCorruptData(size_t segment, size_t offset, size_t bytesDone, const char* reason)
{
    RecordExpansionFailure(segment, offset, bytesDone, reason);
    ReportFailure(std::cout, "Error: deDULO corrupted data detected after decompress: ", bytesDone, " bytes");
}

void ReportSegmentFailure(size_t segment, size_t offset, size_t bytesDone)
{
    RecordExpansionFailure(segment, offset, bytesDone, "does not decode");
    ReportFailure(std::cout, "Error: deDULO returned: ", "0", " after decompress: ", bytesDone, " bytes");
}

constexpr const char* NO_ROOM = "would expand past the end of the output";

} // namespace

size_t COptimalBiasDulo::Decompress(const uint8_t* pCmpData, const size_t cmpDataSize, void* pDecmpBuff,
                                    const size_t decmpBuffSize)
{
    return DecompressOnThreads(pCmpData, cmpDataSize, pDecmpBuff, decmpBuffSize, 1);
}

size_t COptimalBiasDulo::DecompressOnThreads(const uint8_t* pCmpData, const size_t cmpDataSize, void* pDecmpBuff,
                                             const size_t decmpBuffSize, unsigned threads)
{
    ClearExpansionFailure();
    // On several threads the walk only places the segments, which are then decoded together;
    // the first that fails is reported as when each is decoded in turn.
    const bool parallel = threads > 1 && decmpBuffSize >= MIN_PARALLEL_BYTES && m_debugCompression == 0;
    std::vector<size_t> cmpOffsets, cmpLengths, outOffsets;
    uint8_t* const pOut = static_cast<uint8_t*>(pDecmpBuff);
    size_t cmpPos = 0;
    size_t outPos = 0;
    size_t segment = 0;
    const char* walkFailure = nullptr;
    for (; cmpPos < cmpDataSize && outPos < decmpBuffSize; ++segment) {
        const uint8_t* pSeg = pCmpData + cmpPos;
        const size_t compSegSize = CheckedSegmentLength(pSeg, cmpDataSize - cmpPos);
        if (compSegSize == 0 || ExpandedSegmentSize(pSeg) > decmpBuffSize - outPos) {
            walkFailure = compSegSize == 0 ? BAD_SEGMENT_LENGTH : NO_ROOM;
            break;
        }
        size_t bytesOut;
        if (parallel) {
            cmpOffsets.push_back(cmpPos);
            cmpLengths.push_back(compSegSize);
            outOffsets.push_back(outPos);
            bytesOut = ExpandedSegmentSize(pSeg);
        } else if ((bytesOut = DecompressSegment(pSeg, compSegSize, pOut + outPos)) == 0) {
            ReportSegmentFailure(segment, cmpPos, outPos);
            return outPos;
        }
        outPos += bytesOut;
        cmpPos += compSegSize;
    }
    if (parallel) {
        const size_t failed = CParallelSegments::Decode(*this, pCmpData, cmpOffsets, cmpLengths, pOut, outOffsets,
                                                        threads);
        if (failed < cmpOffsets.size()) {
            ReportSegmentFailure(failed, cmpOffsets[failed], outOffsets[failed]);
            return outOffsets[failed];
        }
    }
    if (walkFailure != nullptr)
        ReportCorruptData(segment, cmpPos, outPos, walkFailure);
    return outPos;
}

size_t COptimalBiasDulo::Decompress(const uint8_t* pCmpData, const size_t cmpDataSize, void* pDecmpBuff,
                                    const size_t desiredSize, size_t* cmpConsumed)
{
    ClearExpansionFailure();
    size_t unused;
    if (cmpConsumed == nullptr)
        cmpConsumed = &unused;
    const uintptr_t outAddress = reinterpret_cast<uintptr_t>(pDecmpBuff);
    if (desiredSize == 0 || cmpDataSize == 0 || outAddress + desiredSize < outAddress) {
        *cmpConsumed = 0;
        return 0;
    }
    uint8_t* const pOut = static_cast<uint8_t*>(pDecmpBuff);
    size_t cmpPos = 0;
    size_t dataWritten = 0;
    for (size_t segment = 0;; ++segment) {
        const uint8_t* pSeg = pCmpData + cmpPos;
        const size_t available = cmpDataSize - cmpPos;
        if (available < MIN_SEGMENT_BYTES) {
            ReportCorruptData(segment, cmpPos, dataWritten, BAD_SEGMENT_LENGTH);
            break;
        }
        // Only whole segments are expanded: stop before one that would overshoot desiredSize.
        if (ExpandedSegmentSize(pSeg) > desiredSize - dataWritten)
            break;
        const size_t compSegSize = CheckedSegmentLength(pSeg, available);
        if (compSegSize == 0) {
            ReportCorruptData(segment, cmpPos, dataWritten, BAD_SEGMENT_LENGTH);
            break;
        }
        const size_t bytesOut = DecompressSegment(pSeg, compSegSize, pOut + dataWritten);
        if (bytesOut == 0) {
            ReportSegmentFailure(segment, cmpPos, dataWritten);
            break;
        }
        dataWritten += bytesOut;
        cmpPos += compSegSize;
        if (dataWritten >= desiredSize || cmpPos >= cmpDataSize)
            break;
    }
    *cmpConsumed = cmpPos;
    return dataWritten;
}

size_t COptimalBiasDulo::Decompress(uint8_t* pCmpData, const size_t cmpDataSize, void* pDecmpBuff,
                                    const size_t decmpBuffSize)
{
    return Decompress(static_cast<const uint8_t*>(pCmpData), cmpDataSize, pDecmpBuff, decmpBuffSize);
}

size_t COptimalBiasDulo::Decompress(uint8_t* pCmpData, const size_t cmpDataSize, void* pDecmpBuff,
                                    const size_t desiredSize, size_t* cmpConsumed)
{
    return Decompress(static_cast<const uint8_t*>(pCmpData), cmpDataSize, pDecmpBuff, desiredSize, cmpConsumed);
}

size_t COptimalBiasDulo::DecompressSegment(const uint8_t* pCmpData, size_t segLength, uint8_t* pDecmpData)
{
    const SegmentHeader hdr = ReadSegmentHeader(pCmpData);
    if (m_debugCompression >= 2) {
        CFormatGuard guard(std::cout);
        std::cout << std::dec << "DecmpSeg: LW.mode: " << hdr.byteMode << " desired wsize: " << m_inflateWordSize
                  << std::endl;
    }
    switch (hdr.byteMode) {
    case SHORT_MODE:
        return Inflate<uint16_t>(pCmpData, segLength, pDecmpData);
    case U32B_MODE:
        return Inflate<uint32_t>(pCmpData, segLength, pDecmpData);
    case U64B_MODE:
        return Inflate<uint64_t>(pCmpData, segLength, pDecmpData);
    default:
        break;
    }
    if (m_inflateWordSize != 2)
        return Inflate<uint8_t>(pCmpData, segLength, pDecmpData);
    // Byte segments widen to 16-bit cells as they are decoded.
    const size_t outBytes = Inflate<uint8_t, uint16_t>(pCmpData, segLength, pDecmpData);
    if (m_debugCompression >= 2) {
        CFormatGuard guard(std::cout);
        std::cout << std::dec << "DecmpSeg: expand to short - outBytes: " << 2 * outBytes << std::endl;
    }
    return 2 * outBytes;
}
