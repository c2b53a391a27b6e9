// Writes a segment's non-match nibble stream, two nibbles to a byte, high half first. Repeats of
// one nibble are run-length coded with the plane's escape nibble (the bias's own nibble, which no
// non-match can equal): v E n stands for n slots of v, and v E E h l for 16 to 255.
#pragma once

#include "BitOps.h"
#include "ByteAccess.h"

#include <cstddef>
#include <cstdint>

class CNibbleCoder
{
public:
    // Bytes past writeLimit are counted but not stored: a stream that long loses to the stored
    // form, whose length is all the output is guaranteed to hold.
    CNibbleCoder(uint8_t* pOut, size_t writeLimit, uint8_t firstEscape)
        : m_pOut(pOut), m_writeLimit(writeLimit), m_lastNM(firstEscape)
    {
    }

    void NonMatch(uint8_t nibble, uint8_t escape)
    {
        if (nibble == m_lastNM && m_nmRunLength < NM_RUN_LENGTH_MAX) {
            ++m_nmRunLength;
            return;
        }
        // A single literal owes nothing; only repeats need their run code.
        if (m_nmRunLength > 1)
            Flush(escape);
        Put(nibble);
        m_lastNM = nibble;
        m_nmRunLength = 1;
    }

    // The nibbles of `count` non-match slots of one plane, one per byte. Where no three nibbles in
    // a row are equal, every run is one or two long, and a run of two is written as its literal
    // twice: the nibbles then go into the stream as they stand, eight at a time.
    void NonMatches(const uint8_t* pNibbles, size_t count, uint8_t escape)
    {
        size_t i = 0;
        while (i + 8 <= count) {
            const uint64_t x = LoadLE<uint64_t>(pNibbles + i);
            // Byte j of `same`: nibble j equals the one before it (the last literal for j = 0).
            const uint64_t same = ZeroBytes(x ^ (x << 8 | m_lastNM));
            const bool continuesRun = same & 0x80;
            if (same == 0x8080808080808080ull && m_nmRunLength + 8 <= NM_RUN_LENGTH_MAX) {
                // All eight repeat the run's nibble.
                m_nmRunLength += 8;
                i += 8;
                continue;
            }
            // A third in a row, here or with the open run, takes the nibble-by-nibble path; so
            // does a first nibble that would only count (no literal yet, before any other).
            if ((same & same << 8) != 0 || (continuesRun && m_nmRunLength != 1)) {
                for (size_t end = i + 8; i < end; ++i)
                    NonMatch(pNibbles[i], escape);
                continue;
            }
            if (!continuesRun && m_nmRunLength > 1)
                Flush(escape);
            // A pair at the end stays open: its second nibble is owed as the run's flush.
            const bool pairAtEnd = same >> 63;
            PutNibbles(x, pairAtEnd ? 7 : 8);
            m_lastNM = uint8_t(x >> 56);
            m_nmRunLength = pairAtEnd ? 2 : 1;
            i += 8;
        }
        for (; i < count; ++i)
            NonMatch(pNibbles[i], escape);
    }

    // A run is closed with the escape of its plane; it may go on in the next plane, counted from 1.
    void EndPlane(uint8_t escape) { Flush(escape); }

    // Closes the stream; lastEscape is the bias's lowest nibble. The closing nibbles are never
    // read back but belong to the stream's bytes.
    void Finish(uint8_t lastEscape)
    {
        if (m_pending) {
            if (lastEscape == m_lastNM && m_nmRunLength < NM_RUN_LENGTH_MAX) {
                // lastEscape would only lengthen the run and write nothing: the pending data
                // nibble still has to reach the stream.
                PutByte(uint8_t(m_nmNibWIP << 4));
                return;
            }
            Flush(lastEscape);
            Put(lastEscape);
        }
        if (m_nmNibWIP != lastEscape)
            PutByte(uint8_t(m_nmNibWIP << 4));
    }

    size_t Size() const { return m_bytes; }

private:
    static constexpr unsigned NM_RUN_LENGTH_MAX = 255;

    void Flush(uint8_t escape)
    {
        unsigned length = m_nmRunLength;
        // A count nibble equal to the escape would read as a second escape.
        if (length == escape && length >= 3) {
            Put(m_lastNM);
            --length;
        }
        if (length == 2) {
            Put(m_lastNM);
        } else if (length >= 3 && length <= 15) {
            Put(escape);
            Put(uint8_t(length));
        } else if (length >= 16) {
            Put(escape);
            Put(escape);
            Put(uint8_t(length >> 4));
            Put(uint8_t(length & 0xF));
        }
        m_nmRunLength = 1;
    }

    void Put(uint8_t nibble)
    {
        if (!m_pending) {
            m_nmNibWIP = nibble;
            m_pending = true;
        } else {
            PutByte(uint8_t(m_nmNibWIP << 4 | nibble));
            m_pending = false;
        }
    }

    // Seven or eight nibbles, the low `count` bytes of x, lowest first. With the pending high
    // nibble in front they make up to nine: four bytes are packed at once and the odd one out
    // stays pending.
    void PutNibbles(uint64_t x, unsigned count)
    {
        const bool wasPending = m_pending;
        const uint64_t sequence = wasPending ? (x << 8 | m_nmNibWIP) : x;
        const unsigned nibbles = count + wasPending;
        // Each 16-bit lane's two nibbles into its low byte, then the lanes closed up.
        uint64_t v = ((sequence << 4) | (sequence >> 8)) & 0x00FF00FF00FF00FFull;
        v = (v | v >> 8) & 0x0000FFFF0000FFFFull;
        const uint32_t packed = uint32_t(v | v >> 16);
        const unsigned bytes = nibbles >= 8 ? 4 : 3;
        if (m_bytes + 4 <= m_writeLimit) {
            StoreLE<uint32_t>(m_pOut + m_bytes, packed); // a fourth byte past `bytes` is rewritten later
            m_bytes += bytes;
        } else {
            for (unsigned k = 0; k < bytes; ++k)
                PutByte(uint8_t(packed >> (8 * k)));
        }
        // The last nibble that went into a high half, and the one left pending.
        m_pending = nibbles % 2 != 0;
        m_nmNibWIP = uint8_t(m_pending ? x >> (8 * (count - 1)) : sequence >> 48);
    }

    void PutByte(uint8_t byte)
    {
        if (m_bytes < m_writeLimit)
            m_pOut[m_bytes] = byte;
        ++m_bytes;
    }

    uint8_t* m_pOut;
    size_t m_writeLimit;
    size_t m_bytes = 0;
    uint8_t m_lastNM;
    unsigned m_nmRunLength = 0;
    uint8_t m_nmNibWIP = 0; // the nibble last placed in a high half
    bool m_pending = false;
};
