// Compression of a whole buffer, cut into segments laid end to end in the caller's buffer.
#include "OptimalBiasDulo.h"

#include "BitOps.h"
#include "ParallelSegments.h"
#include "ByteAccess.h"
#include "KernelDispatch.h"
#include "Report.h"

#include <algorithm>
#include <cstdint>
#include <iostream>
#include <memory>
#include <vector>

size_t COptimalBiasDulo::GetWorstCaseCmpBufSize(const size_t& cellSize, const size_t& uncSize)
{
    // A full segment costs at most its bytes plus the header word; a short one also its size
    // field. The slack covers the padding and the value fields of a segment that ends up stored.
    // No cap: a size with which Compress can fail is no worst case. A size whose worst case does
    // not fit in size_t gets SIZE_MAX, which no buffer has.
    const size_t segs = uncSize / STD_SEGSIZE;
    const size_t rem = uncSize % STD_SEGSIZE;
    constexpr size_t MOST = SIZE_MAX - (STD_SEGSIZE + 4) - 16;
    if (segs > MOST / (STD_SEGSIZE + 4))
        return SIZE_MAX;
    const size_t needed = segs * (STD_SEGSIZE + 4) + (rem != 0 ? rem + 6 : 0);
    const size_t align = needed % 4;
    const size_t wipSpace = align != 0 ? std::max(4 - align, 2 * cellSize) : 2 * cellSize;
    return needed + wipSpace;
}

size_t COptimalBiasDulo::CompressSegment(void* pUncData, const uint16_t& segSize, const size_t& cellSize,
                                         uint8_t* pCmpBuff)
{
    uint8_t* pData = static_cast<uint8_t*>(pUncData);
    switch (cellSize) {
    case 1:
        return LevelCompress<uint8_t>(pData, segSize, pCmpBuff);
    case 2:
        return LevelCompress<uint16_t>(pData, segSize, pCmpBuff);
    case 4:
        return LevelCompress<uint32_t>(pData, segSize, pCmpBuff);
    case 8:
        return LevelCompress<uint64_t>(pData, segSize, pCmpBuff);
    default:
        return 0;
    }
}

bool COptimalBiasDulo::ShortsFitInBytes(const uint8_t* p, size_t bytes)
{
    // The OR of the cells: whole words by the kernel set's pass, then the last cells singly.
    uint64_t result = ActiveKernels().cells.orOfWords(p, bytes / 8, 0);
    for (size_t i = bytes / 8 * 8; i < bytes; i += 2)
        result |= LoadLE<uint16_t>(p + i);
    return (result & 0xFF00FF00FF00FF00ull) == 0;
}

size_t COptimalBiasDulo::NextSegmentBytes(const uint8_t* pUnc, size_t bytesToDo, const size_t& cellSize) const
{
    if (MayEnlargeSegments(cellSize)) {
        const size_t bytesToTest = SegmentBytes(bytesToDo, true);
        if (ShortsFitInBytes(pUnc, bytesToTest))
            return bytesToTest;
    }
    return SegmentBytes(bytesToDo, false);
}

size_t COptimalBiasDulo::Compress(void* pUncData, const size_t& uncSize, const size_t& cellSize, uint8_t* cmpBuff,
                                  const size_t& bufSize)
{
    return CompressOnThreads(pUncData, uncSize, cellSize, cmpBuff, bufSize, 1);
}

size_t COptimalBiasDulo::CompressOnThreads(void* pUncData, const size_t& uncSize, const size_t& cellSize,
                                           uint8_t* cmpBuff, const size_t& bufSize, unsigned threads)
{
    uint8_t* pUnc = static_cast<uint8_t*>(pUncData);
    std::unique_ptr<CParallelSegments> pCoded;
    size_t bytesToDo = uncSize;
    size_t wcbsize = GetWorstCaseCmpBufSize(cellSize, std::min<size_t>(uncSize, STD_SEGSIZE));
    size_t didBytes = 0;
    size_t totalCompressedSize = 0;
    size_t segment = 0;
    auto fail = [&]() -> size_t {
        if (pCoded)
            pCoded->SettleCodec(segment);
        ReportFailure(std::cerr, "Error: Halting DULO after compressing ", didBytes, " bytes, remaining: ", bytesToDo,
                      " bytes, wip compressed bytes: ", totalCompressedSize, " user buf size: ", bufSize,
                      " wcbsize: ", wcbsize);
        return 0;
    };

    if (uncSize == 0)
        return 0;
    // A partial last cell would be lost.
    if (cellSize == 0 || uncSize % cellSize != 0)
        return fail();
    if (wcbsize > bufSize)
        return fail();

    // On several threads every segment is coded first into scratch space; the walk below then
    // makes the same checks, takes the same sizes and leaves the codec in the same state as when
    // it codes each segment in turn.
    if (threads > 1 && uncSize >= MIN_PARALLEL_BYTES && m_debugCompression == 0)
        pCoded.reset(new CParallelSegments(*this, pUnc, uncSize, cellSize, threads));
    if (pCoded && !pCoded->Coded())
        pCoded.reset();
    std::vector<size_t> outOffsets;
    for (;;) {
        const size_t segmentBytes = pCoded ? pCoded->SegmentBytes(segment) : NextSegmentBytes(pUnc, bytesToDo, cellSize);
        // The checks below use the worst case of a 4096-byte segment; an enlarged one needs more.
        if (GetWorstCaseCmpBufSize(cellSize, segmentBytes) > bufSize - totalCompressedSize)
            return fail();
        size_t compSize;
        if (pCoded) {
            compSize = pCoded->CompressedSize(segment);
            outOffsets.push_back(totalCompressedSize);
        } else {
            Prefetch(pUnc + segmentBytes, std::min<size_t>(bytesToDo - segmentBytes, STD_SEGSIZE));
            compSize = CompressSegment(pUnc, uint16_t(segmentBytes), cellSize, cmpBuff + totalCompressedSize);
        }
        ++segment;
        if (compSize == 0)
            return fail();
        totalCompressedSize += compSize;
        didBytes += segmentBytes;
        bytesToDo -= segmentBytes;
        if (bytesToDo >= 1 && bytesToDo <= STD_SEGSIZE)
            wcbsize = GetWorstCaseCmpBufSize(cellSize, bytesToDo);
        if (bytesToDo == 0)
            break;
        if (wcbsize + totalCompressedSize > bufSize)
            return fail();
        pUnc += segmentBytes;
    }
    if (bufSize < totalCompressedSize)
        return fail();
    if (pCoded) {
        pCoded->SettleCodec(segment);
        pCoded->CopyOut(outOffsets, cmpBuff);
    }
    return totalCompressedSize;
}
