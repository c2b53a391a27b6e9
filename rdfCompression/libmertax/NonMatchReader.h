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
    __attribute__((always_inline)) bool Next(uint8_t biasNib, uint8_t& nibble)
    {
        return NextSlot<true>(biasNib, nibble);
    }

    // One slot takes at most NIBBLES_PER_SLOT nibbles (escape, escape, two count nibbles).
    static constexpr size_t NIBBLES_PER_SLOT = 4;
    size_t NibblesLeft() const { return m_nibbleEnd - m_nibblePos; }
    // Next, for a caller that has made sure of NIBBLES_PER_SLOT nibbles per slot it asks for.
    __attribute__((always_inline)) uint8_t NextWithin(uint8_t biasNib)
    {
        uint8_t nibble;
        NextSlot<false>(biasNib, nibble);
        return nibble;
    }

    bool ReadNibble(uint8_t& x) { return Read<true>(x); }

    // After an escape: one nibble, or, when that is the escape again, a byte of two nibbles.
    bool ReadRunLength(uint8_t biasNib, uint8_t& runLength) { return ReadCount<true>(biasNib, runLength); }

    // The run-entry replay of the bias hint works the repeat counter itself.
    uint8_t LastLiteral() const { return m_nmNib; }
    void SetLastLiteral(uint8_t nibble) { m_nmNib = nibble; }
    uint8_t& RepeatsOwed() { return m_nonMatchCnt; }

private:
    // Runs once per non-match slot: kept inline (out of line it cost a third of expansion), as are
    // the public forms above.
    template <bool CHECKED>
    __attribute__((always_inline)) bool NextSlot(uint8_t biasNib, uint8_t& nibble)
    {
        if (m_nonMatchCnt != 0) {
            --m_nonMatchCnt;
            nibble = m_nmNib;
            return true;
        }
        uint8_t x;
        if (!Read<CHECKED>(x))
            return false;
        if (x != biasNib) {
            m_nmNib = x;
            nibble = x;
            return true;
        }
        uint8_t runLength;
        if (!ReadCount<CHECKED>(biasNib, runLength))
            return false;
        // The run counts the literal before the escape and the slot that read it.
        m_nonMatchCnt = uint8_t(runLength - 2);
        nibble = m_nmNib;
        return true;
    }

    template <bool CHECKED>
    __attribute__((always_inline)) bool Read(uint8_t& x)
    {
        if (CHECKED && m_nibblePos >= m_nibbleEnd)
            return false;
        const uint8_t byte = m_pStream[m_nibblePos >> 1];
        x = (m_nibblePos & 1) ? (byte & 0xF) : (byte >> 4);
        ++m_nibblePos;
        return true;
    }

    template <bool CHECKED>
    bool ReadCount(uint8_t biasNib, uint8_t& runLength)
    {
        uint8_t n;
        if (!Read<CHECKED>(n))
            return false;
        if (n != biasNib) {
            runLength = n;
            return true;
        }
        uint8_t high;
        uint8_t low;
        if (!Read<CHECKED>(high) || !Read<CHECKED>(low))
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
