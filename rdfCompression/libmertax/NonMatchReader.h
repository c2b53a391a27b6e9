// Reader of a segment's non-match nibble stream: nibbles are read high half first, and a nibble
// equal to the plane's bias nibble is an escape that introduces a run length.
#pragma once

#include <cstddef>
#include <cstdint>

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
    // Runs once per non-match slot: kept inline (out of line it cost a third of expansion).
    __attribute__((always_inline)) bool Next(uint8_t biasNib, uint8_t& nibble)
    {
        if (m_nonMatchCnt != 0) {
            --m_nonMatchCnt;
            nibble = m_nmNib;
            return true;
        }
        uint8_t x;
        if (!ReadNibble(x))
            return false;
        if (x != biasNib) {
            m_nmNib = x;
            nibble = x;
            return true;
        }
        uint8_t runLength;
        if (!ReadRunLength(biasNib, runLength))
            return false;
        // The run counts the literal before the escape and the slot that read it.
        m_nonMatchCnt = uint8_t(runLength - 2);
        nibble = m_nmNib;
        return true;
    }

    __attribute__((always_inline)) bool ReadNibble(uint8_t& x)
    {
        if (m_nibblePos >= m_nibbleEnd)
            return false;
        const uint8_t byte = m_pStream[m_nibblePos >> 1];
        x = (m_nibblePos & 1) ? (byte & 0xF) : (byte >> 4);
        ++m_nibblePos;
        return true;
    }

    // After an escape: one nibble, or, when that is the escape again, a byte of two nibbles.
    bool ReadRunLength(uint8_t biasNib, uint8_t& runLength)
    {
        uint8_t n;
        if (!ReadNibble(n))
            return false;
        if (n != biasNib) {
            runLength = n;
            return true;
        }
        uint8_t high;
        uint8_t low;
        if (!ReadNibble(high) || !ReadNibble(low))
            return false;
        runLength = uint8_t(high << 4 | low);
        return true;
    }

    // The run-entry replay of the bias hint works the repeat counter itself.
    uint8_t LastLiteral() const { return m_nmNib; }
    void SetLastLiteral(uint8_t nibble) { m_nmNib = nibble; }
    uint8_t& RepeatsOwed() { return m_nonMatchCnt; }

private:
    const uint8_t* m_pStream;
    size_t m_nibbleEnd;
    size_t m_nibblePos;
    uint8_t m_nmNib;
    uint8_t m_nonMatchCnt;
};
