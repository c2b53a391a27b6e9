// Reader of a segment's non-match nibble stream: nibbles are read high half first, and a nibble
// equal to the plane's bias nibble is an escape that introduces a run length.
#pragma once

#include "BitOps.h"
#include "ByteAccess.h"
#include "SegmentFormat.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>

#ifdef __SSE2__
#include <emmintrin.h>
#endif

class CNonMatchReader
{
public:
    // The longest stream: a whole segment.
    static constexpr size_t MAX_STREAM_BYTES = MAX_SEGMENT_DATA;

    // firstBiasNib is the bias nibble of plane 0, which the last literal starts as. The stream's
    // bytes are split into nibbles, one per byte, once: every read after that is a byte load.
    CNonMatchReader(const uint8_t* pStream, size_t length, uint8_t firstBiasNib)
        : m_nibbleEnd(2 * std::min(length, MAX_STREAM_BYTES)), m_nibblePos(0), m_nmNib(firstBiasNib), m_nonMatchCnt(0)
    {
        SplitNibbles(pStream, m_nibbleEnd / 2, m_aNibbles);
    }

    // The nibble of the next non-match slot in a plane whose bias nibble is biasNib: a repeat of
    // the last literal while a run is owed, else the next literal, else (after an escape) the
    // last literal again with the run's remaining repeats now owed. False when the stream ends.
    bool Next(uint8_t biasNib, uint8_t& nibble) { return NextSlot(biasNib, nibble); }

    // Room past its count that Take's output must have: literals are copied 64 at a time.
    static constexpr size_t OUTPUT_SLACK = 64;

    // The nibbles of the next `count` non-match slots of a plane whose bias nibble is biasNib, one
    // per byte into pOut, which must have room for count + OUTPUT_SLACK bytes. False when the
    // stream ends.
    bool Take(size_t count, uint8_t biasNib, uint8_t* pOut)
    {
        // The reader's state is worked in locals: stores through pOut may alias the members, which
        // the compiler would otherwise reload after every store.
        size_t pos = m_nibblePos;
        uint8_t last = m_nmNib;
        unsigned owed = m_nonMatchCnt;
        const uint8_t* pNibbles = m_aNibbles;
        // A window of up to 128 nibbles from `base`, with a bit for each escape in it: the next
        // escape is a bit scan away, not a load and a compare. `base` starts out of reach
        // (pos - base wraps to a large value), so that the first step fills the window.
        size_t base = pos + 128;
        size_t windowEnd = 0;
        unsigned __int128 escapes = 0;
        size_t done = 0;
        while (done < count) {
            if (owed != 0) {
                done += PutRepeats(last, owed, count - done, pOut + done);
                continue;
            }
            if (pos - base > 124) {
                base = pos;
                windowEnd = std::min(pos + 128, m_nibbleEnd);
                escapes = MatchMask64(pNibbles + pos, biasNib) |
                          static_cast<unsigned __int128>(MatchMask64(pNibbles + pos + 64, biasNib)) << 64;
                if (windowEnd - pos < 128)
                    escapes &= (static_cast<unsigned __int128>(1) << (windowEnd - pos)) - 1;
            }
            // The literals up to the next escape (or the window's end) go out together.
            const unsigned __int128 ahead = escapes >> (pos - base);
            const size_t escapeAt = ahead != 0 ? LowestBit(ahead) : windowEnd - pos;
            const size_t literals = std::min(escapeAt, count - done);
            if (literals != 0) {
                // 64 or 128 bytes, whatever the count: a copy loop's exit would be mispredicted at
                // every escape.
                std::memcpy(pOut + done, pNibbles + pos, 64);
                if (literals > 64)
                    std::memcpy(pOut + done + 64, pNibbles + pos + 64, 64);
                last = pNibbles[pos + literals - 1];
                pos += literals;
                done += literals;
            }
            if (done == count)
                break;
            if (ahead == 0) {
                if (pos >= m_nibbleEnd)
                    return false;
                continue;
            }
            if (pos + 4 > m_nibbleEnd) {
                // An escape at the stream's end: its run length is read with every bound checked.
                m_nibblePos = pos;
                m_nmNib = last;
                m_nonMatchCnt = 0;
                if (!NextSlot(biasNib, pOut[done]))
                    return false;
                pos = m_nibblePos;
                owed = m_nonMatchCnt;
                ++done;
                continue;
            }
            uint8_t runLength = pNibbles[pos + 1];
            if (runLength != biasNib) {
                pos += 2;
            } else {
                runLength = uint8_t(pNibbles[pos + 2] << 4 | pNibbles[pos + 3]);
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

    // The nibbles of `bytes` bytes, high half first, one per byte into pOut (with room for 32
    // bytes past them): with SSE2, sixteen bytes a step.
    static void SplitNibbles(const uint8_t* pBytes, size_t bytes, uint8_t* pOut)
    {
        size_t i = 0;
#ifdef __SSE2__
        const __m128i low4 = _mm_set1_epi8(0x0F);
        for (; i + 16 <= bytes; i += 16) {
            const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(pBytes + i));
            const __m128i highs = _mm_and_si128(_mm_srli_epi16(v, 4), low4);
            const __m128i lows = _mm_and_si128(v, low4);
            _mm_storeu_si128(reinterpret_cast<__m128i*>(pOut + 2 * i), _mm_unpacklo_epi8(highs, lows));
            _mm_storeu_si128(reinterpret_cast<__m128i*>(pOut + 2 * i + 16), _mm_unpackhi_epi8(highs, lows));
        }
#endif
        for (; i < bytes; ++i) {
            pOut[2 * i] = pBytes[i] >> 4;
            pOut[2 * i + 1] = pBytes[i] & 0xF;
        }
    }

    bool ReadNibble(uint8_t& x) { return Read(x); }

    // After an escape: one nibble, or, when that is the escape again, a byte of two nibbles.
    bool ReadRunLength(uint8_t biasNib, uint8_t& runLength) { return ReadCount(biasNib, runLength); }

    // The run-entry replay of the bias hint works the repeat counter itself.
    uint8_t LastLiteral() const { return m_nmNib; }
    void SetLastLiteral(uint8_t nibble) { m_nmNib = nibble; }
    uint8_t& RepeatsOwed() { return m_nonMatchCnt; }

private:
    // The position of the lowest set bit of a mask that is not 0.
    static unsigned LowestBit(unsigned __int128 bits)
    {
        const uint64_t low = uint64_t(bits);
        return low != 0 ? unsigned(__builtin_ctzll(low)) : 64 + unsigned(__builtin_ctzll(uint64_t(bits >> 64)));
    }

    // Up to `room` of the `owed` repeats of `nibble` (owed drops by as many), into the room past
    // the plane's count. Returns how many. Most runs are short: the first 32 go out whatever the
    // count, so that only longer runs take the loop, whose exit would be mispredicted.
    static size_t PutRepeats(uint8_t nibble, unsigned& owed, size_t room, uint8_t* pOut)
    {
        const size_t repeats = owed < room ? owed : room;
        const uint64_t repeated = 0x0101010101010101ull * nibble;
        for (unsigned i = 0; i < 32; i += 8)
            StoreLE<uint64_t>(pOut + i, repeated);
        for (size_t i = 32; i < repeats; i += 8)
            StoreLE<uint64_t>(pOut + i, repeated);
        owed -= unsigned(repeats);
        return repeats;
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
        x = m_aNibbles[m_nibblePos++];
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

    size_t m_nibbleEnd;
    size_t m_nibblePos;
    uint8_t m_nmNib;
    uint8_t m_nonMatchCnt;
    uint8_t m_aNibbles[2 * MAX_STREAM_BYTES + 128]; // a window is read whole, also at the end
};
