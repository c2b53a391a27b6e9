// Builds a segment's map: the sequence of entries that classify every coded slot as a match (its
// nibble equals the bias's) or a non-match.
//
// Entries: 00bbbbbb a group of six slots (bit 5 first, 1 = match); 01nnnnnn n non-matches;
// 10nnnnnn, 110nnnnn and 111nnnnn+byte a run of n, 64 + n or 96 + n matches followed by one
// non-match. The coder alternates between run mode (counting matches) and group mode (filling a
// group bit by bit); all-zero groups are held back and written as non-match run entries.
#pragma once

#include <cstddef>
#include <cstdint>

class CMapCoder
{
public:
    explicit CMapCoder(uint8_t* pMap) : m_pMap(pMap) {}

    // Element 0 of the first coded plane, after `skipped` matching slots of the leading planes
    // that are not coded. When it is a non-match those slots become a run code at once, which
    // stands for the non-match too.
    void First(bool match, size_t skipped)
    {
        if (match) {
            m_aRunOfMatches = true;
            m_cnt = skipped + 1;
        } else if (skipped > 0) {
            m_cnt = skipped;
            WriteRunCode();
        } else {
            m_cnt = 0x10; // this non-match took bit 5
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
            if (match) {
                m_aRunOfMatches = true;
                m_cnt = 1;
            } else {
                m_cnt = 0x10;
            }
            return;
        }
        if (match)
            m_group |= uint8_t(m_cnt);
        m_cnt >>= 1;
        if (m_cnt != 0)
            return;
        if (m_group == 0) {
            // An all-zero group is held back; the coder stays in group mode.
            m_nonMatchCnt += 6;
            m_cnt = 0x20;
        } else {
            FlushNonMatches();
            PutGroup();
            m_atBoundary = true;
        }
    }

    bool InRun() const { return m_aRunOfMatches; }
    // Several matching slots at once, in run mode.
    void AddMatches(size_t count) { m_cnt += count; }

    // Closes the map after the last slot: an open run becomes a run code (with no non-match
    // after it); otherwise a group that has been started, or a boundary with a run-code
    // remainder in m_cnt, is written as it stands.
    void Finish()
    {
        if (m_aRunOfMatches) {
            WriteRunCode();
        } else if (m_cnt != 0) {
            FlushNonMatches();
            PutGroup();
        }
    }

    size_t Size() const { return m_size; }
    // A run longer than a long run code can hold (only in segments above 4096 bytes).
    bool RunTooLong() const { return m_runTooLong; }

private:
    // A run ended by a non-match. Runs of 1 to 5 fold into a group: the matches from bit 5 down,
    // then the non-match as a 0 bit.
    void EndRun()
    {
        static const uint8_t FOLDED_GROUP[5] = {0, 0x20, 0x30, 0x38, 0x3C};
        static const uint8_t NEXT_BIT[5] = {0, 0x08, 0x04, 0x02, 0x01};
        m_aRunOfMatches = false;
        if (m_cnt < 5) {
            m_group = FOLDED_GROUP[m_cnt];
            m_cnt = NEXT_BIT[m_cnt];
        } else if (m_cnt == 5) {
            Put(0x3E);
            m_cnt = 0;
            m_atBoundary = true;
        } else {
            WriteRunCode();
        }
    }

    // The long forms subtract their base from m_cnt; the remainder stays there until the next
    // element, and decides whether Finish writes a last group byte.
    void WriteRunCode()
    {
        if (m_cnt < 64) {
            Put(uint8_t(0x80 | m_cnt));
        } else if (m_cnt < 96) {
            m_cnt -= 64;
            Put(uint8_t(0xC0 | m_cnt));
        } else {
            m_cnt -= 96;
            m_runTooLong |= m_cnt > 0x1FFF;
            Put(uint8_t(0xE0 | (m_cnt >> 8)));
            Put(uint8_t(m_cnt));
        }
        m_atBoundary = true;
    }

    void FlushNonMatches()
    {
        for (; m_nonMatchCnt > 63; m_nonMatchCnt -= 63)
            Put(0x7F);
        if (m_nonMatchCnt != 0)
            Put(uint8_t(0x40 | m_nonMatchCnt));
        m_nonMatchCnt = 0;
    }

    void PutGroup()
    {
        Put(m_group);
        m_group = 0;
    }

    // Every entry covers at least six slots except a bounded few, so a segment's map stays far
    // below the staging array's size.
    void Put(uint8_t entry) { m_pMap[m_size++] = entry; }

    uint8_t* m_pMap;
    size_t m_size = 0;
    bool m_aRunOfMatches = false;
    bool m_atBoundary = false;
    bool m_runTooLong = false;
    size_t m_cnt = 0;
    uint8_t m_group = 0;
    size_t m_nonMatchCnt = 0;
};
