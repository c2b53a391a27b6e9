// Builds a segment's map: the sequence of entries that classify every coded slot as a match (its
// nibble equals the bias's) or a non-match.
//
// Entries: 00bbbbbb a group of six slots (bit 5 first, 1 = match); 01nnnnnn n non-matches;
// 10nnnnnn, 110nnnnn and 111nnnnn+byte a run of n, 64 + n or 96 + n matches followed by one
// non-match. The coder alternates between run mode (counting matches) and group mode (filling a
// group bit by bit); all-zero groups are held back and written as non-match run entries.
#pragma once

#include "BitOps.h"

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
        if (m_cnt == 0)
            CloseGroup();
    }

    // `count` (at most 64) slots at once, bit i of `matches` for the i-th: the same entries as
    // that many calls of Next, with runs of matches counted by bit scans and the rest of a group
    // filled in one step.
    void NextSlots(uint64_t matches, unsigned count)
    {
        while (count != 0) {
            if (m_aRunOfMatches) {
                const uint64_t ended = ~matches & LowBits(count);
                if (ended == 0) {
                    m_cnt += count;
                    return;
                }
                const unsigned run = unsigned(__builtin_ctzll(ended));
                m_cnt += run;
                EndRun();
                matches = Shift(matches, run + 1);
                count -= run + 1;
                continue;
            }
            if (m_atBoundary && count >= 6 && (matches & 1) == 0) {
                // A non-match at a boundary opens a group with it as bit 5: the whole group at once.
                m_atBoundary = false;
                m_group = REVERSED6[matches & 0x3F];
                m_cnt = 0;
                CloseGroup();
                matches >>= 6;
                count -= 6;
                continue;
            }
            // The group's open bits, from m_cnt down to bit 0, take the next slots in order.
            const unsigned open = m_atBoundary || m_cnt == 0 ? 0 : unsigned(64 - __builtin_clzll(m_cnt));
            if (open == 0 || open > count) {
                Next(matches & 1);
                matches >>= 1;
                --count;
                continue;
            }
            m_group |= uint8_t(REVERSED6[matches & LowBits(open)] >> (6 - open));
            m_cnt = 0;
            CloseGroup();
            matches = Shift(matches, open);
            count -= open;
        }
    }

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
    // REVERSED6[b]: the six bits of b in reverse order (slot order to group bit order).
    static constexpr uint8_t REVERSED6[64] = {
        0x00, 0x20, 0x10, 0x30, 0x08, 0x28, 0x18, 0x38, 0x04, 0x24, 0x14, 0x34, 0x0C, 0x2C, 0x1C, 0x3C,
        0x02, 0x22, 0x12, 0x32, 0x0A, 0x2A, 0x1A, 0x3A, 0x06, 0x26, 0x16, 0x36, 0x0E, 0x2E, 0x1E, 0x3E,
        0x01, 0x21, 0x11, 0x31, 0x09, 0x29, 0x19, 0x39, 0x05, 0x25, 0x15, 0x35, 0x0D, 0x2D, 0x1D, 0x3D,
        0x03, 0x23, 0x13, 0x33, 0x0B, 0x2B, 0x1B, 0x3B, 0x07, 0x27, 0x17, 0x37, 0x0F, 0x2F, 0x1F, 0x3F};

    static uint64_t Shift(uint64_t bits, unsigned count) { return count >= 64 ? 0 : bits >> count; }

    // A full group: all-zero groups are held back and the coder stays in group mode.
    void CloseGroup()
    {
        if (m_group == 0) {
            m_nonMatchCnt += 6;
            m_cnt = 0x20;
        } else {
            FlushNonMatches();
            PutGroup();
            m_atBoundary = true;
        }
    }

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
