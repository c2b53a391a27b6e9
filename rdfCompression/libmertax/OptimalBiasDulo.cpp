// The codec object, its settings, and the expansion of a compressed buffer segment by segment.
#include "OptimalBiasDulo.h"

#include "ByteAccess.h"
#include "Report.h"
#include "SegmentFormat.h"

#include <cstring>
#include <iomanip>
#include <iostream>

COptimalBiasDulo::COptimalBiasDulo()
    : m_reduceWordSize(false),
      m_inflateWordSize(0),
      m_debugCompression(0),
      m_compressLevel(DEFAULT_COMPRESS_LEVEL),
      m_biasHint(0),
      m_segsProcessed(0)
{
}

void COptimalBiasDulo::SetCompressLevel(const size_t& compressLevel) { m_compressLevel = compressLevel; }
void COptimalBiasDulo::SetReduceWordSize() { m_reduceWordSize = true; }
void COptimalBiasDulo::ClearReduceWordSize() { m_reduceWordSize = false; }
void COptimalBiasDulo::SetInflateWordSize(const size_t& inflateWordSize) { m_inflateWordSize = inflateWordSize; }
void COptimalBiasDulo::SetDebugLevel(size_t debugLevel) { m_debugCompression = debugLevel; }
size_t COptimalBiasDulo::GetDebugLevel() const { return m_debugCompression; }

size_t COptimalBiasDulo::ExpandedSegmentSize(const uint8_t* pSeg) const
{
    const size_t bytes = SegmentDataSize(pSeg);
    return ReadSegmentHeader(pSeg).byteMode == BYTE_MODE && m_inflateWordSize == 2 ? 2 * bytes : bytes;
}

static void ReportCorruptData(size_t bytesDone)
{
    ReportFailure(std::cout, "Error: deDULO corrupted data detected after decompress: ", bytesDone, " bytes");
}

static void ReportSegmentFailure(size_t bytesDone)
{
    ReportFailure(std::cout, "Error: deDULO returned: ", "0", " after decompress: ", bytesDone, " bytes");
}

size_t COptimalBiasDulo::Decompress(const uint8_t* pCmpData, const size_t cmpDataSize, void* pDecmpBuff,
                                    const size_t decmpBuffSize)
{
    uint8_t* const pOut = static_cast<uint8_t*>(pDecmpBuff);
    size_t cmpPos = 0;
    size_t outPos = 0;
    while (cmpPos < cmpDataSize && outPos < decmpBuffSize) {
        const uint8_t* pSeg = pCmpData + cmpPos;
        const size_t compSegSize = CheckedSegmentLength(pSeg, cmpDataSize - cmpPos);
        if (compSegSize == 0 || ExpandedSegmentSize(pSeg) > decmpBuffSize - outPos) {
            ReportCorruptData(outPos);
            break;
        }
        const size_t bytesOut = DecompressSegment(pSeg, compSegSize, pOut + outPos);
        if (bytesOut == 0) {
            ReportSegmentFailure(outPos);
            break;
        }
        outPos += bytesOut;
        cmpPos += compSegSize;
    }
    return outPos;
}

size_t COptimalBiasDulo::Decompress(const uint8_t* pCmpData, const size_t cmpDataSize, void* pDecmpBuff,
                                    const size_t desiredSize, size_t* cmpConsumed)
{
    const uintptr_t outAddress = reinterpret_cast<uintptr_t>(pDecmpBuff);
    if (desiredSize == 0 || cmpDataSize == 0 || outAddress + desiredSize < outAddress) {
        *cmpConsumed = 0;
        return 0;
    }
    uint8_t* const pOut = static_cast<uint8_t*>(pDecmpBuff);
    size_t cmpPos = 0;
    size_t dataWritten = 0;
    for (;;) {
        const uint8_t* pSeg = pCmpData + cmpPos;
        const size_t available = cmpDataSize - cmpPos;
        if (available < MIN_SEGMENT_BYTES) {
            ReportCorruptData(dataWritten);
            break;
        }
        // Only whole segments are expanded: stop before one that would overshoot desiredSize.
        if (ExpandedSegmentSize(pSeg) > desiredSize - dataWritten)
            break;
        const size_t compSegSize = CheckedSegmentLength(pSeg, available);
        if (compSegSize == 0) {
            ReportCorruptData(dataWritten);
            break;
        }
        const size_t bytesOut = DecompressSegment(pSeg, compSegSize, pOut + dataWritten);
        if (bytesOut == 0) {
            ReportSegmentFailure(dataWritten);
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
    if (m_debugCompression >= 2)
        std::cout << std::dec << "DecmpSeg: expand to short - outBytes: " << 2 * outBytes << std::endl;
    return 2 * outBytes;
}

void COptimalBiasDulo::HexDump(const std::string& info, const uint8_t* pData, size_t size, const void* pShownAddress)
{
    std::ostream& os = std::cout;
    const std::ios_base::fmtflags saved = os.flags();
    os << std::endl
       << info << "(" << std::dec << size << " bytes at address="
       << (pShownAddress != nullptr ? pShownAddress : static_cast<const void*>(pData)) << ")" << std::endl;
    // The row offset is padded with whatever fill the stream holds; the byte columns set it to
    // '0' and leave it there, so only the very first row the process prints pads with a blank.
    for (uint32_t row = 0; row < size; row += 16) {
        os << std::hex << std::nouppercase << std::setw(2) << row << ":";
        for (size_t i = row; i < size && i < size_t(row) + 16; ++i)
            os << " " << std::setw(2) << std::setfill('0') << unsigned(pData[i]);
        os << std::endl;
    }
    os << std::endl;
    os.flags(saved);
}
