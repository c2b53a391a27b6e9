// Writes a segment's non-match nibble stream, two nibbles to a byte, high half first. Repeats of
// one nibble are run-length coded with the plane's escape nibble (the bias's own nibble, which no
// non-match can equal): v E n stands for n slots of v, and v E E h l for 16 to 255.
#pragma once

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
