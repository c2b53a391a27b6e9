#include "CheckedExpansion.h"

#include "ExpansionFailure.h"
#include "OptimalBiasDulo.h"
#include "Report.h"
#include "SegmentFormat.h"

#include <sstream>

bool IsCellSize(size_t cellBytes)
{
    return cellBytes == 1 || cellBytes == 2 || cellBytes == 4 || cellBytes == 8;
}

std::string CellSizeError(size_t cellBytes)
{
    return "cell size must be 1, 2, 4 or 8 bytes, not " + std::to_string(cellBytes);
}

CStreamSize CheckStream(const uint8_t* pCmp, size_t cmpSize, size_t cellBytes)
{
    CStreamSize size;
    if (!IsCellSize(cellBytes)) {
        size.error = CellSizeError(cellBytes);
        return size;
    }
    const CStreamWalk walk = WalkStream(pCmp, cmpSize, cellBytes);
    if (!walk.whole) {
        size.error = walk.Damage();
        return size;
    }
    size.ok = true;
    size.bytes = walk.ExpandedBytes(cellBytes);
    return size;
}

bool ExpandStream(const uint8_t* pCmp, size_t cmpSize, size_t cellBytes, void* pOut, size_t expected,
                  std::string& error, unsigned threads)
{
    const CStreamSize size = CheckStream(pCmp, cmpSize, cellBytes);
    if (!size.ok) {
        error = size.error;
        return false;
    }
    if (size.bytes != expected) {
        error = "the data expands to " + std::to_string(size.bytes) + " bytes, not " + std::to_string(expected);
        return false;
    }
    // The headers add up to `expected`, so every segment fits and the expansion can fall short
    // only where a segment's map or stream does not decode.
    CQuietCodec quiet;
    COptimalBiasDulo codec;
    codec.SetInflateWordSize(cellBytes);
    const size_t produced = codec.DecompressOnThreads(pCmp, cmpSize, pOut, expected, threads);
    if (produced == expected)
        return true;
    const CExpansionFailure& f = LastExpansionFailure();
    std::ostringstream text;
    text << "damaged data: segment " << f.segment << " at byte offset " << f.offset << " " << f.reason << " (after "
         << f.produced << " of " << expected << " bytes)";
    error = text.str();
    return false;
}
