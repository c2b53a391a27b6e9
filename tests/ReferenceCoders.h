// Slot-by-slot and nibble-by-nibble forms of the map and nibble-stream coders: the plain state
// machines that the library's run-based coders must agree with byte for byte.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

class CReferenceMapCoder
{
public:
    void First(bool match, size_t skipped)
    {
        if (match) {
            m_aRunOfMatches = true;
            m_cnt = skipped + 1;
        } else if (skipped > 0) {
            m_cnt = skipped;
            WriteRunCode();
        } else {
            m_cnt = 0x10;
        }
    }

    void Next(bool match)
    {
        if (m_aRunOfMatches) {
            if (match)
                ++m_cnt;
            else
                EndRun();
            return;
        }
        if (m_atBoundary) {
            m_atBoundary = false;
            m_aRunOfMatches = match;
            m_cnt = match ? 1 : 0x10;
            return;
        }
        if (match)
            m_group |= uint8_t(m_cnt);
        m_cnt >>= 1;
        if (m_cnt == 0)
            CloseGroup();
    }

    void Finish()
    {
        if (m_aRunOfMatches) {
            WriteRunCode();
        } else if (m_cnt != 0) {
            FlushNonMatches();
            m_map.push_back(m_group);
        }
    }

    const std::vector<uint8_t>& Map() const { return m_map; }
    bool RunTooLong() const { return m_runTooLong; }

private:
    void CloseGroup()
    {
        if (m_group == 0) {
            m_nonMatchCnt += 6;
            m_cnt = 0x20;
        } else {
            FlushNonMatches();
            m_map.push_back(m_group);
            m_group = 0;
            m_atBoundary = true;
        }
    }

    void EndRun()
    {
        static const uint8_t FOLDED_GROUP[5] = {0, 0x20, 0x30, 0x38, 0x3C};
        static const uint8_t NEXT_BIT[5] = {0, 0x08, 0x04, 0x02, 0x01};
        m_aRunOfMatches = false;
        if (m_cnt < 5) {
            m_group = FOLDED_GROUP[m_cnt];
            m_cnt = NEXT_BIT[m_cnt];
        } else if (m_cnt == 5) {
            m_map.push_back(0x3E);
            m_cnt = 0;
            m_atBoundary = true;
        } else {
            WriteRunCode();
        }
    }

    void WriteRunCode()
    {
        if (m_cnt < 64) {
            m_map.push_back(uint8_t(0x80 | m_cnt));
        } else if (m_cnt < 96) {
            m_cnt -= 64;
            m_map.push_back(uint8_t(0xC0 | m_cnt));
        } else {
            m_cnt -= 96;
            m_runTooLong |= m_cnt > 0x1FFF;
            m_map.push_back(uint8_t(0xE0 | (m_cnt >> 8)));
            m_map.push_back(uint8_t(m_cnt));
        }
        m_atBoundary = true;
    }

    void FlushNonMatches()
    {
        for (; m_nonMatchCnt > 63; m_nonMatchCnt -= 63)
            m_map.push_back(0x7F);
        if (m_nonMatchCnt != 0)
            m_map.push_back(uint8_t(0x40 | m_nonMatchCnt));
        m_nonMatchCnt = 0;
    }

    std::vector<uint8_t> m_map;
    bool m_aRunOfMatches = false;
    bool m_atBoundary = false;
    bool m_runTooLong = false;
    size_t m_cnt = 0;
    uint8_t m_group = 0;
    size_t m_nonMatchCnt = 0;
};

class CReferenceNibbleCoder
{
public:
    explicit CReferenceNibbleCoder(uint8_t firstEscape) : m_lastNM(firstEscape) {}

    void NonMatch(uint8_t nibble, uint8_t escape)
    {
        if (nibble == m_lastNM && m_nmRunLength < 255) {
            ++m_nmRunLength;
            return;
        }
        if (m_nmRunLength > 1)
            Flush(escape);
        Put(nibble);
        m_lastNM = nibble;
        m_nmRunLength = 1;
    }

    void EndPlane(uint8_t escape) { Flush(escape); }

    void Finish(uint8_t lastEscape)
    {
        if (m_pending) {
            if (lastEscape == m_lastNM && m_nmRunLength < 255) {
                m_stream.push_back(uint8_t(m_nmNibWIP << 4));
                return;
            }
            Flush(lastEscape);
            Put(lastEscape);
        }
        if (m_nmNibWIP != lastEscape)
            m_stream.push_back(uint8_t(m_nmNibWIP << 4));
    }

    const std::vector<uint8_t>& Stream() const { return m_stream; }
    uint8_t LastNibble() const { return m_lastNM; }

private:
    void Flush(uint8_t escape)
    {
        unsigned length = m_nmRunLength;
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
        } else {
            m_stream.push_back(uint8_t(m_nmNibWIP << 4 | nibble));
        }
        m_pending = !m_pending;
    }

    std::vector<uint8_t> m_stream;
    uint8_t m_lastNM;
    unsigned m_nmRunLength = 0;
    uint8_t m_nmNibWIP = 0;
    bool m_pending = false;
};
