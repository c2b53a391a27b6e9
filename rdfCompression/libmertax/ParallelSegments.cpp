#include "ParallelSegments.h"

#include "WorkerPool.h"

#include <algorithm>
#include <cstring>
#include <thread>

namespace {

// Segments per task: large enough that taking a task costs nothing, small enough to share out.
constexpr size_t CODE_RANGE = 8;
constexpr size_t DECODE_RANGE = 16;
// Blocks per task when finding which of them fit in bytes.
constexpr size_t FIT_RANGE = 32;

size_t RoundUp(size_t value, size_t multiple) { return (value + multiple - 1) / multiple * multiple; }

size_t TaskCount(size_t items, size_t perTask) { return (items + perTask - 1) / perTask; }

} // namespace

CParallelSegments::CParallelSegments(COptimalBiasDulo& codec, const uint8_t* pUnc, size_t uncSize, size_t cellSize,
                                     unsigned threads)
    : m_codec(codec), m_pUnc(pUnc), m_cellSize(cellSize), m_threads(threads),
      m_stride(RoundUp(codec.GetWorstCaseCmpBufSize(cellSize, codec.MayEnlargeSegments(cellSize)
                                                                   ? 2 * COptimalBiasDulo::STD_SEGSIZE
                                                                   : COptimalBiasDulo::STD_SEGSIZE),
                       64)),
      m_segsBefore(codec.m_segsProcessed)
{
    Segment(uncSize);
    const size_t level = codec.m_compressLevel;
    const bool hinted = level >= COptimalBiasDulo::HINT_OPTBIAS_COMP_LEVEL &&
                        level < COptimalBiasDulo::FIND_OPTBIAS_COMP_LEVEL;
    m_period = hinted ? COptimalBiasDulo::FIND_OPTBIAS_COMP_LEVEL - level : 0;
    // No room for the scratch space: the caller codes on its own thread instead.
    m_scratch.emplace(m_stride * m_segments.size());
    m_pScratch = m_scratch->Data();
    if (m_pScratch == nullptr)
        return;
    m_hintFor.assign(m_segments.size(), codec.m_biasHint);

    const size_t ranges = TaskCount(m_segments.size(), CODE_RANGE);
    if (m_period == 0) {
        m_hintsKnown = m_segments.size();
        RunTasks(threads, ranges, [this](size_t task) { CodeRange(task); });
        return;
    }
    // Task 0 is the chain; whoever takes it never waits, and the ranges wait only for it.
    RunTasks(threads, ranges + 1, [this](size_t task) { task == 0 ? CodeChain() : CodeRange(task - 1); });
}

void CParallelSegments::Segment(size_t uncSize)
{
    constexpr size_t BLOCK = COptimalBiasDulo::STD_SEGSIZE;
    // Segments start at multiples of BLOCK, and an enlarged one spans two blocks: whether each
    // block's cells fit in bytes is learnt on the pool, and the segments then follow in turn.
    std::vector<uint8_t> fits;
    if (m_codec.MayEnlargeSegments(m_cellSize)) {
        fits.resize(TaskCount(uncSize, BLOCK));
        RunTasks(m_threads, TaskCount(fits.size(), FIT_RANGE), [&](size_t task) {
            const size_t end = std::min(fits.size(), (task + 1) * FIT_RANGE);
            for (size_t block = task * FIT_RANGE; block < end; ++block)
                fits[block] = COptimalBiasDulo::ShortsFitInBytes(m_pUnc + block * BLOCK,
                                                                 std::min(BLOCK, uncSize - block * BLOCK));
        });
    }
    for (size_t offset = 0; offset < uncSize;) {
        const size_t block = offset / BLOCK, left = uncSize - offset;
        const bool enlarged = !fits.empty() && fits[block] && (left <= BLOCK || fits[block + 1]);
        const size_t bytes = COptimalBiasDulo::SegmentBytes(left, enlarged);
        m_segments.push_back({offset, bytes, 0, 0});
        offset += bytes;
    }
}

bool CParallelSegments::RenewsHint(size_t segment) const
{
    return m_period != 0 && (m_segsBefore + segment + 1) % m_period == 0;
}

void CParallelSegments::CodeSegment(size_t segment, uint64_t hint)
{
    CSegment& seg = m_segments[segment];
    COptimalBiasDulo codec = m_codec; // the level and switches; the hint and count are this segment's
    codec.m_biasHint = hint;
    codec.m_segsProcessed = m_segsBefore + segment;
    // The codec only reads the cells (a stored segment with segmin is restored in a copy).
    seg.compSize = codec.CompressSegment(const_cast<uint8_t*>(m_pUnc) + seg.inOffset, uint16_t(seg.bytes),
                                         m_cellSize, m_pScratch + segment * m_stride);
    seg.hintAfter = codec.m_biasHint;
}

void CParallelSegments::CodeChain()
{
    size_t segment = 0;
    for (; segment < m_segments.size() && !RenewsHint(segment); ++segment) {
    }
    m_hintsKnown.store(std::min(segment + 1, m_segments.size()), std::memory_order_release);
    while (segment < m_segments.size()) {
        CodeSegment(segment, m_hintFor[segment]);
        const uint64_t hint = m_segments[segment].hintAfter;
        size_t next = segment + 1;
        for (; next < m_segments.size() && !RenewsHint(next); ++next)
            m_hintFor[next] = hint;
        if (next < m_segments.size())
            m_hintFor[next] = hint;
        m_hintsKnown.store(std::min(next + 1, m_segments.size()), std::memory_order_release);
        segment = next;
    }
}

void CParallelSegments::CodeRange(size_t task)
{
    const size_t end = std::min(m_segments.size(), (task + 1) * CODE_RANGE);
    for (size_t segment = task * CODE_RANGE; segment < end; ++segment) {
        if (RenewsHint(segment))
            continue;
        // The chain runs ahead of every range (it codes one segment in `period`); wait for it.
        while (m_hintsKnown.load(std::memory_order_acquire) <= segment)
            std::this_thread::yield();
        CodeSegment(segment, m_hintFor[segment]);
    }
}

void CParallelSegments::SettleCodec(size_t taken) const
{
    m_codec.m_segsProcessed = m_segsBefore + taken;
    if (taken != 0)
        m_codec.m_biasHint = m_segments[taken - 1].hintAfter;
}

void CParallelSegments::CopyOut(const std::vector<size_t>& offsets, uint8_t* pOut) const
{
    RunTasks(m_threads, TaskCount(offsets.size(), CODE_RANGE), [&](size_t task) {
        const size_t end = std::min(offsets.size(), (task + 1) * CODE_RANGE);
        for (size_t segment = task * CODE_RANGE; segment < end; ++segment)
            std::memcpy(pOut + offsets[segment], m_pScratch + segment * m_stride, m_segments[segment].compSize);
    });
}

size_t CParallelSegments::Decode(const COptimalBiasDulo& codec, const uint8_t* pCmp,
                                 const std::vector<size_t>& cmpOffsets, const std::vector<size_t>& cmpLengths,
                                 uint8_t* pOut, const std::vector<size_t>& outOffsets, unsigned threads)
{
    const size_t count = cmpOffsets.size();
    std::vector<uint8_t> decoded(count, 0);
    RunTasks(threads, TaskCount(count, DECODE_RANGE), [&](size_t task) {
        COptimalBiasDulo local = codec;
        const size_t end = std::min(count, (task + 1) * DECODE_RANGE);
        for (size_t segment = task * DECODE_RANGE; segment < end; ++segment)
            decoded[segment] =
                local.DecompressSegment(pCmp + cmpOffsets[segment], cmpLengths[segment], pOut + outOffsets[segment]) != 0;
    });
    return size_t(std::find(decoded.begin(), decoded.end(), 0) - decoded.begin());
}
