// Segments coded and decoded on the library's worker pool. Segments are independent except for
// the bias hint of levels 1 to 7: only the segments that renew it form a chain, which one task
// codes in order while the others code the segments in between as soon as their hint is known.
// The bytes, and the hint the codec carries to its next call, are those of one thread.
#pragma once

#include "KeptScratch.h"
#include "OptimalBiasDulo.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

class CParallelSegments
{
public:
    // Cuts the input as Compress does and codes every segment into scratch space, if it gets it.
    CParallelSegments(COptimalBiasDulo& codec, const uint8_t* pUnc, size_t uncSize, size_t cellSize,
                      unsigned threads);

    // False when there was no memory for the scratch space: nothing was coded.
    bool Coded() const { return m_pScratch != nullptr; }
    size_t SegmentBytes(size_t segment) const { return m_segments[segment].bytes; }
    size_t CompressedSize(size_t segment) const { return m_segments[segment].compSize; }
    // Leaves the codec's hint and segment count as coding the first `taken` segments in turn would.
    void SettleCodec(size_t taken) const;
    // Copies the coded segments to pOut + offsets[i], for every offset given.
    void CopyOut(const std::vector<size_t>& offsets, uint8_t* pOut) const;

    // Decodes segments [0, count) of a stream, the i-th of cmpLengths[i] bytes at pCmp +
    // cmpOffsets[i] into pOut + outOffsets[i]; returns the first that does not decode, or count.
    static size_t Decode(const COptimalBiasDulo& codec, const uint8_t* pCmp, const std::vector<size_t>& cmpOffsets,
                         const std::vector<size_t>& cmpLengths, uint8_t* pOut, const std::vector<size_t>& outOffsets,
                         unsigned threads);

private:
    struct CSegment
    {
        size_t inOffset;
        size_t bytes;
        size_t compSize;
        uint64_t hintAfter; // the codec's hint once this segment is coded
    };

    bool RenewsHint(size_t segment) const;
    // Cuts the input into segments as the codec does one after the other.
    void Segment(size_t uncSize);
    void CodeSegment(size_t segment, uint64_t hint);
    void CodeChain();
    void CodeRange(size_t task);

    COptimalBiasDulo& m_codec;
    const uint8_t* m_pUnc;
    size_t m_cellSize;
    unsigned m_threads;
    size_t m_stride; // scratch bytes per segment
    std::optional<CKeptScratch> m_scratch;
    uint8_t* m_pScratch = nullptr; // m_scratch's data
    std::vector<CSegment> m_segments;
    size_t m_period;         // segments per hint renewal, 0 where the level keeps no hint
    size_t m_segsBefore;     // the codec's segment count when the call began
    std::vector<uint64_t> m_hintFor; // the hint each segment is coded with, once known
    std::atomic<size_t> m_hintsKnown{0}; // m_hintFor[i] is final for every i below this
};

