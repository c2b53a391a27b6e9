// Writes a segment's non-match nibble stream, two nibbles to a byte, high half first. Repeats of
// one nibble are run-length coded with the plane's escape nibble (the bias's own nibble, which no
// non-match can equal): v E n stands for n slots of v, and v E E h l for 16 to 255.
//
// The coder works run by run, not nibble by nibble. Outside runs of three or more the stream
// repeats its input (a pair is written as its literal twice), so a plane's nibbles are copied in
// stretches up to the next run of three, found by bit scans of a mask of "equals the one before".
// Where runs come often, a kernel set may instead code whole windows of runs at once. The stream
// is staged one nibble per byte and packed into bytes once, at the end.
#pragma once

#include "ByteAccess.h"
#include "NibbleKernels.h"
#include "SegmentFormat.h"

#include <cstddef>
#include <cstdint>
#include <cstring>

class CNibbleCoder
{
public:
    // The most non-match nibbles one plane can hand over: one per slot.
    static constexpr size_t MAX_PLANE_NIBBLES = MAX_SEGMENT_DATA;
    // Bytes of the plane buffer that may be written past a plane's nibbles (a whole block's worth).
    static constexpr size_t PLANE_SLACK = 64;

    CNibbleCoder(uint8_t firstEscape, const CNibbleKernels& kernels) : m_kernels(kernels), m_lastNM(firstEscape) {}

    // Where a plane's non-match nibbles are to be put, one per byte, before Plane codes them:
    // room for MAX_PLANE_NIBBLES + PLANE_SLACK.
    uint8_t* PlaneNibbles() { return m_aPlane + 16; }

    // Codes the `count` non-match nibbles put at PlaneNibbles() and closes the plane's last run
    // with its escape. A run may go on from the previous plane's last literal, which counts as
    // its first slot: a run left open at a plane's end is never longer than that literal, so a
    // plane with no non-matches writes nothing.
    void Plane(size_t count, uint8_t escape)
    {
        if (count == 0)
            return;
        uint8_t* pNibbles = PlaneNibbles();
        // Bit j of same: nibble j repeats the one before (nibble 0: the last literal, put in
        // front of the plane for the purpose); of third: so does nibble j - 1.
        uint64_t same[MAX_PLANE_NIBBLES / 64 + 1], third[MAX_PLANE_NIBBLES / 64 + 1];
        pNibbles[-1] = m_lastNM;
        const size_t words = m_kernels.markRepeats(pNibbles, count, same, third);
        // The stream and the last literal stay in locals: stores to the staging bytes could
        // otherwise alias the members.
        uint8_t* pOut = m_aStaged + m_staged;
        uint8_t last = m_lastNM;
        size_t i = 0;
        if (pNibbles[0] == last) {
            // The plane opens with the open run's nibble: those slots only lengthen the run.
            const size_t lead = NextClear(same, words, 0, count);
            const size_t room = NM_RUN_LENGTH_MAX - 1;
            i = lead < room ? lead : room;
            pOut = PutRun(pOut, unsigned(1 + i), last, escape);
        }
        // From i on, runs start afresh (i is never inside a run begun before it).
        if (m_kernels.codeRunWindows != nullptr && RunsAreDense(third, words)) {
            m_staged = size_t(CodeWindows(pOut, pNibbles, i, count, escape, same, words) - m_aStaged);
            m_lastNM = pNibbles[count - 1];
            return;
        }
        // Run by run: a run of three or more starts two slots before the first of its "third in a
        // row" bits, so each word's run starts come from its own bits and the last bit of the word
        // before; only the literal count and the output pointer carry from one run to the next.
        size_t w = (i + 2) / 64;
        uint64_t thirds = w < words ? third[w] & (~uint64_t(0) << ((i + 2) % 64)) : 0;
        for (uint64_t carry = 0; w < words;) {
            for (uint64_t starts = thirds & ~(thirds << 1 | carry); starts != 0; starts &= starts - 1) {
                const size_t start = 64 * w + unsigned(__builtin_ctzll(starts)) - 2;
                pOut = CopyLiterals(pOut, pNibbles + i, start + 1 - i);
                last = pNibbles[start];
                const size_t end = NextClear(same, words, start + 2, count);
                pOut = PutCappedRun(pOut, end - start, last, escape);
                i = end;
            }
            carry = thirds >> 63;
            if (++w < words)
                thirds = third[w];
        }
        if (i < count) {
            pOut = CopyLiterals(pOut, pNibbles + i, count - i);
            last = pNibbles[count - 1];
        }
        m_staged = size_t(pOut - m_aStaged);
        m_lastNM = last;
    }

    // Closes the stream (lastEscape is the bias's lowest nibble) and packs it into pOut, of which
    // only the first writeLimit bytes are written: a longer stream loses to the stored form.
    // Returns the stream's length in bytes. The closing nibbles are never read back but belong to
    // the stream; a nibble left in a low half at the very end is not part of it.
    size_t Finish(uint8_t lastEscape, uint8_t* pOut, size_t writeLimit)
    {
        if (m_staged % 2 != 0) {
            if (lastEscape == m_lastNM) {
                // lastEscape would only lengthen the run and write nothing: the pending data
                // nibble still has to reach the stream, with a 0 low half.
                Put(0);
                return Pack(pOut, writeLimit);
            }
            Put(lastEscape);
        }
        // The nibble last placed in a high half goes out once more, in a byte of its own, unless
        // it is the escape.
        const uint8_t highHalf = m_staged == 0 ? 0 : m_aStaged[(m_staged - 1) & ~size_t(1)];
        if (highHalf != lastEscape) {
            if (m_staged % 2 == 0)
                Put(highHalf);
            Put(0);
        }
        return Pack(pOut, writeLimit);
    }

private:
    static constexpr size_t WINDOW_RUNS_MIN = 2; // runs of three or more in 64 slots

    // The first position at or after `from` whose bit is clear, or `count`.
    static size_t NextClear(const uint64_t* pSame, size_t words, size_t from, size_t count)
    {
        size_t w = from / 64;
        if (w >= words)
            return count;
        uint64_t clear = ~pSame[w] & (~uint64_t(0) << (from % 64));
        while (clear == 0) {
            if (++w == words)
                return count;
            clear = ~pSame[w];
        }
        return 64 * w + unsigned(__builtin_ctzll(clear));
    }

    // Whether runs of three or more come often enough (two in 64 slots) for the window
    // kernel, whose cost is per window, to beat coding them one by one, whose cost is per run.
    // Eight words spread over the plane tell well enough, at little cost.
    static bool RunsAreDense(const uint64_t* pThird, size_t words)
    {
        const size_t stride = words / 8 + 1;
        size_t runs = 0, sampled = 0;
        for (size_t w = 0; w < words; w += stride, ++sampled)
            runs += BitCount(pThird[w] & ~(pThird[w] << 1));
        return runs >= WINDOW_RUNS_MIN * sampled;
    }

    // Window by window, each up to the last run that ends within 64 slots; a longer run is coded
    // on its own.
    uint8_t* CodeWindows(uint8_t* pOut, const uint8_t* pNibbles, size_t i, size_t count, uint8_t escape,
                         const uint64_t* pSame, size_t words) const
    {
        while ((i = m_kernels.codeRunWindows(pNibbles, pSame, i, count, escape, pOut)) < count) {
            const size_t end = NextClear(pSame, words, i + 1, count);
            *pOut++ = pNibbles[i];
            pOut = PutCappedRun(pOut, end - i, pNibbles[i], escape);
            i = end;
        }
        return pOut;
    }

    // A run is capped at 255; the next slot starts a new run with its literal.
    static uint8_t* PutCappedRun(uint8_t* pOut, size_t length, uint8_t v, uint8_t escape)
    {
        for (; length > NM_RUN_LENGTH_MAX; length -= NM_RUN_LENGTH_MAX) {
            pOut = PutRun(pOut, NM_RUN_LENGTH_MAX, v, escape);
            *pOut++ = v;
        }
        return PutRun(pOut, unsigned(length), v, escape);
    }

    // Literals go in as they stand, 64 bytes at a time (most stretches take one step, with no loop
    // exit to mispredict): the staging area has room past its end and the plane buffer is
    // readable past its count.
    static uint8_t* CopyLiterals(uint8_t* pOut, const uint8_t* pNibbles, size_t count)
    {
        std::memcpy(pOut, pNibbles, 64);
        for (size_t k = 64; k < count; k += 64)
            std::memcpy(pOut + k, pNibbles + k, 64);
        return pOut + count;
    }

    // The code that closes a run of `length` slots (1 to 255) of v, whose first literal is already
    // out: looked up, so that the run's length class costs no branch.
    static uint8_t* PutRun(uint8_t* pOut, unsigned length, uint8_t v, uint8_t escape)
    {
        const uint32_t nibbles = RUN_TAILS.m_aNibbles[escape][length];
        // The bytes that stand for v (RUN_TAIL_VALUE, the only ones with the high bit) made all ones.
        const uint32_t isValue = (nibbles >> 7 & 0x01010101u) * 0xFF;
        StoreLE<uint32_t>(pOut, (nibbles & ~isValue) | (v * 0x01010101u & isValue));
        return pOut + RUN_TAILS.m_aCount[escape][length];
    }

    void Put(uint8_t nibble) { m_aStaged[m_staged++] = nibble; }

    // Two staged nibbles to a byte, as many bytes as writeLimit allows.
    size_t Pack(uint8_t* pOut, size_t writeLimit)
    {
        const size_t bytes = m_staged / 2;
        m_kernels.pack(m_aStaged, bytes < writeLimit ? bytes : writeLimit, pOut);
        return bytes;
    }

    // A plane's nibbles from byte 16 on: the byte before them takes the last literal, and a
    // plane's last word is read whole.
    uint8_t m_aPlane[16 + MAX_PLANE_NIBBLES + PLANE_SLACK];
    // Every run codes to no more nibbles than it has slots, so the stream stays within one nibble
    // per coded slot, plus the closing ones and the copies' overrun.
    static constexpr size_t MAX_STAGED = 2 * MAX_SEGMENT_DATA + 128;

    uint8_t m_aStaged[MAX_STAGED];
    const CNibbleKernels m_kernels;
    size_t m_staged = 0;
    uint8_t m_lastNM;
};
