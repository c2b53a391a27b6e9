// Reader of a segment's non-match nibble stream: nibbles are read high half first, and a nibble
// equal to the plane's bias nibble is an escape that introduces a run length.
#pragma once

#include "BitOps.h"
#include "ByteAccess.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>

#ifdef __SSE2__
#include <emmintrin.h>
#endif

class CNonMatchReader
{
public:
    // firstBiasNib is the bias nibble of plane 0, which the last literal starts as.
    CNonMatchReader(const uint8_t* pStream, size_t length, uint8_t firstBiasNib)
        : m_pStream(pStream), m_nibbleEnd(2 * length), m_nibblePos(0), m_nmNib(firstBiasNib), m_nonMatchCnt(0)
    {
    }

    // The nibble of the next non-match slot in a plane whose bias nibble is biasNib: a repeat of
    // the last literal while a run is owed, else the next literal, else (after an escape) the
    // last literal again with the run's remaining repeats now owed. False when the stream ends.
    bool Next(uint8_t biasNib, uint8_t& nibble) { return NextSlot(biasNib, nibble); }

    // The nibbles of the next `count` non-match slots of a plane whose bias nibble is biasNib, one
    // per byte into pOut, which must have room for count + 15 bytes. False when the stream ends.
    bool Take(size_t count, uint8_t biasNib, uint8_t* pOut)
    {
        // The reader's state is worked in locals: stores through pOut may alias the members, which
        // the compiler would otherwise reload after every store.
        size_t pos = m_nibblePos;
        uint8_t last = m_nmNib;
        unsigned owed = m_nonMatchCnt;
        const size_t streamBytes = m_nibbleEnd >> 1;
        const uint64_t escapes = 0x1111111111111111ull * biasNib;
        size_t done = 0;
        while (done < count) {
            if (owed != 0) {
                done += PutRepeats(last, owed, count - done, pOut + done);
                continue;
            }
            if ((pos >> 1) + 8 > streamBytes) {
                // Near the stream's end, one slot at a time.
                m_nibblePos = pos;
                m_nmNib = last;
                m_nonMatchCnt = 0;
                if (!NextSlot(biasNib, pOut[done]))
                    return false;
                pos = m_nibblePos;
                last = m_nmNib;
                owed = m_nonMatchCnt;
                ++done;
                continue;
            }
            // Sixteen nibbles at once (fifteen from a low half), first nibble on top: the literals
            // before the first escape go out together, and then the escape and its run length.
            uint64_t nibbles = __builtin_bswap64(LoadLE<uint64_t>(m_pStream + (pos >> 1)));
            const size_t window = 16 - (pos & 1);
            nibbles <<= 4 * (pos & 1);
            const uint64_t escapeMarks = ZeroNibbles(nibbles ^ escapes);
            const size_t escapeAt = escapeMarks != 0 ? size_t(__builtin_clzll(escapeMarks)) / 4 : 16;
            const size_t literals = std::min(std::min(escapeAt, window), count - done);
            if (literals != 0) {
                SpreadNibbles(nibbles, pOut + done);
                last = uint8_t(nibbles >> (64 - 4 * literals)) & 0xF;
                pos += literals;
                done += literals;
            }
            // The escape and up to three nibbles of run length must lie in the window.
            if (literals != escapeAt || escapeAt + 4 > window || done == count)
                continue;
            const unsigned shift = 4 * unsigned(escapeAt);
            uint8_t runLength = uint8_t(nibbles << shift >> 56) & 0xF;
            if (runLength != biasNib) {
                pos += 2;
            } else {
                runLength = uint8_t(nibbles << shift >> 48);
                pos += 4;
            }
            // The escape's own slot and the run's remaining repeats, the last literal each time.
            owed = 1u + uint8_t(runLength - 2);
            done += PutRepeats(last, owed, count - done, pOut + done);
        }
        m_nibblePos = pos;
        m_nmNib = last;
        m_nonMatchCnt = uint8_t(owed);
        return true;
    }

    // The sixteen nibbles of v, first on top, one per byte in order: with SSE2 (part of every
    // x86-64) the high and low halves of the bytes are interleaved in one step.
    static void SpreadNibbles(uint64_t v, uint8_t* pOut)
    {
#ifdef __SSE2__
        const uint64_t bytes = __builtin_bswap64(v); // first byte lowest, first nibble its high half
        const __m128i highs = _mm_cvtsi64_si128(int64_t((bytes >> 4) & 0x0F0F0F0F0F0F0F0Full));
        const __m128i lows = _mm_cvtsi64_si128(int64_t(bytes & 0x0F0F0F0F0F0F0F0Full));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(pOut), _mm_unpacklo_epi8(highs, lows));
#else
        SpreadNibblesPortable(v, pOut);
#endif
    }

    // The same without SSE2, and the reference that it is tested against.
    static void SpreadNibblesPortable(uint64_t v, uint8_t* pOut)
    {
        StoreLE<uint64_t>(pOut, __builtin_bswap64(SpreadToBytes(uint32_t(v >> 32))));
        StoreLE<uint64_t>(pOut + 8, __builtin_bswap64(SpreadToBytes(uint32_t(v))));
    }

    bool ReadNibble(uint8_t& x) { return Read(x); }

    // After an escape: one nibble, or, when that is the escape again, a byte of two nibbles.
    bool ReadRunLength(uint8_t biasNib, uint8_t& runLength) { return ReadCount(biasNib, runLength); }

    // The run-entry replay of the bias hint works the repeat counter itself.
    uint8_t LastLiteral() const { return m_nmNib; }
    void SetLastLiteral(uint8_t nibble) { m_nmNib = nibble; }
    uint8_t& RepeatsOwed() { return m_nonMatchCnt; }

private:
    // Up to `room` of the `owed` repeats of `nibble` (owed drops by as many), eight at a time into
    // the room past the plane's count: most runs are short. Returns how many.
    static size_t PutRepeats(uint8_t nibble, unsigned& owed, size_t room, uint8_t* pOut)
    {
        const size_t repeats = owed < room ? owed : room;
        const uint64_t repeated = 0x0101010101010101ull * nibble;
        for (size_t i = 0; i < repeats; i += 8)
            StoreLE<uint64_t>(pOut + i, repeated);
        owed -= unsigned(repeats);
        return repeats;
    }

    // Nibble i of x (from the least significant) into byte i.
    static uint64_t SpreadToBytes(uint32_t x)
    {
        uint64_t v = x;
        v = (v | v << 16) & 0x0000FFFF0000FFFFull;
        v = (v | v << 8) & 0x00FF00FF00FF00FFull;
        return (v | v << 4) & 0x0F0F0F0F0F0F0F0Full;
    }

    bool NextSlot(uint8_t biasNib, uint8_t& nibble)
    {
        if (m_nonMatchCnt != 0) {
            --m_nonMatchCnt;
            nibble = m_nmNib;
            return true;
        }
        uint8_t x;
        if (!Read(x))
            return false;
        if (x != biasNib) {
            m_nmNib = x;
            nibble = x;
            return true;
        }
        uint8_t runLength;
        if (!ReadCount(biasNib, runLength))
            return false;
        // The run counts the literal before the escape and the slot that read it.
        m_nonMatchCnt = uint8_t(runLength - 2);
        nibble = m_nmNib;
        return true;
    }

    bool Read(uint8_t& x)
    {
        if (m_nibblePos >= m_nibbleEnd)
            return false;
        const uint8_t byte = m_pStream[m_nibblePos >> 1];
        x = (m_nibblePos & 1) ? (byte & 0xF) : (byte >> 4);
        ++m_nibblePos;
        return true;
    }

    bool ReadCount(uint8_t biasNib, uint8_t& runLength)
    {
        uint8_t n;
        if (!Read(n))
            return false;
        if (n != biasNib) {
            runLength = n;
            return true;
        }
        uint8_t high;
        uint8_t low;
        if (!Read(high) || !Read(low))
            return false;
        runLength = uint8_t(high << 4 | low);
        return true;
    }

    const uint8_t* m_pStream;
    size_t m_nibbleEnd;
    size_t m_nibblePos;
    uint8_t m_nmNib;
    uint8_t m_nonMatchCnt;
};
