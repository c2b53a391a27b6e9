// Builds a segment's map: the sequence of entries that classify every coded slot as a match (its
// nibble equals the bias's) or a non-match.
//
// Entries: 00bbbbbb a group of six slots (bit 5 first, 1 = match); 01nnnnnn n non-matches;
// 10nnnnnn, 110nnnnn and 111nnnnn+byte a run of n, 64 + n or 96 + n matches followed by one
// non-match. At an entry boundary a match opens a run and a non-match a group; all-zero groups
// are held back and written as non-match run entries, and the next group follows at once.
//
// The coder works entry by entry on the segment's match bits: a run's length is a bit scan, a
// group is six bits turned round by a table, and a stretch of all-zero groups is counted from the
// length of the run of non-matches.
#pragma once

#include "BitOps.h"

#include <cstddef>
#include <cstdint>

// Collects the match bits of a segment's slots, plane after plane: a plane's slots need not
// fill whole words.
class CMatchBits
{
public:
    explicit CMatchBits(uint64_t* pWords) : m_pWords(pWords) {}

    // The low `count` bits of `bits` (1 to 64), whose bits above them must be clear.
    void Append(uint64_t bits, unsigned count)
    {
        const unsigned used = unsigned(m_size % 64);
        uint64_t* pWord = m_pWords + m_size / 64;
        if (used == 0)
            *pWord = bits;
        else
            *pWord |= bits << used;
        if (used + count > 64)
            pWord[1] = bits >> (64 - used);
        m_size += count;
    }

    // The number of bits; the two words after the last one are cleared for the map coder.
    size_t Close()
    {
        const size_t words = (m_size + 63) / 64;
        m_pWords[words] = 0;
        m_pWords[words + 1] = 0;
        return m_size;
    }

private:
    uint64_t* m_pWords;
    size_t m_size = 0;
};

class CMapCoder
{
public:
    // Codes the map of `slots` coded slots (at least one) into pMap; bit i of pMatches[i / 64] is
    // slot i's match bit, and two words after the last one must be readable. `skipped` matching
    // slots of the leading planes that are not coded come before slot 0. Returns the map's size.
    size_t Code(const uint64_t* pMatches, size_t slots, size_t skipped, uint8_t* pMap)
    {
        m_pBits = pMatches;
        m_slots = slots;
        m_pMap = pMap;
        m_size = 0;
        size_t p = 0;
        if (Bit(0)) {
            // The skipped slots and the matches after them make one run.
            const size_t ones = Ones(0);
            p = EndRun(skipped + ones, ones);
        } else if (skipped > 0) {
            // Slot 0 ends the run of skipped slots at once, even a short one.
            WriteRunCode(skipped);
            p = 1;
        } else {
            p = Group(0);
        }
        // At a boundary, six slots that are neither all matches nor all non-matches make one group
        // entry whatever the slot first: a run of 1 to 5 matches folds into exactly that group, and
        // 0x3E is the group of five matches and a non-match. Such groups are taken straight from
        // a 64-slot window; runs of six or more matches and all-zero groups go the long way.
        while (m_slots - p >= 64) {
            const uint64_t window = Window(p);
            uint8_t* pOut = m_pMap + m_size;
            unsigned used = 0;
            for (; used <= 58; used += 6) {
                const unsigned group = unsigned(window >> used) & 0x3F;
                if (group == 0 || group == 0x3F)
                    break;
                *pOut++ = REVERSED6[group];
            }
            m_size = size_t(pOut - m_pMap);
            if (used != 0)
                m_remainder = 0;
            p += used;
            if (used <= 58)
                p = Entry(p);
        }
        while (p < m_slots)
            p = Entry(p);
        // At the end of a run code whose long form left a remainder, an empty group closes the map.
        if (p == m_slots && m_remainder != 0)
            Put(0);
        return m_size;
    }

    // A run longer than a long run code can hold (only in segments above 4096 bytes).
    bool RunTooLong() const { return m_runTooLong; }

private:
    // REVERSED6[b]: the six bits of b in reverse order (slot order to group bit order).
    static constexpr uint8_t REVERSED6[64] = {
        0x00, 0x20, 0x10, 0x30, 0x08, 0x28, 0x18, 0x38, 0x04, 0x24, 0x14, 0x34, 0x0C, 0x2C, 0x1C, 0x3C,
        0x02, 0x22, 0x12, 0x32, 0x0A, 0x2A, 0x1A, 0x3A, 0x06, 0x26, 0x16, 0x36, 0x0E, 0x2E, 0x1E, 0x3E,
        0x01, 0x21, 0x11, 0x31, 0x09, 0x29, 0x19, 0x39, 0x05, 0x25, 0x15, 0x35, 0x0D, 0x2D, 0x1D, 0x3D,
        0x03, 0x23, 0x13, 0x33, 0x0B, 0x2B, 0x1B, 0x3B, 0x07, 0x27, 0x17, 0x37, 0x0F, 0x2F, 0x1F, 0x3F};

    bool Bit(size_t p) const { return m_pBits[p / 64] >> (p % 64) & 1; }

    // The 64 match bits from slot p on, slot p in bit 0 (bits past the last slot are garbage).
    uint64_t Window(size_t p) const
    {
        const unsigned shift = unsigned(p % 64);
        const uint64_t low = m_pBits[p / 64] >> shift;
        return shift == 0 ? low : low | m_pBits[p / 64 + 1] << (64 - shift);
    }

    // The length of the run of matches (or non-matches) from slot p, up to the last slot.
    size_t Ones(size_t p) const { return RunFrom(p, ~uint64_t(0)); }
    size_t Zeros(size_t p) const { return RunFrom(p, 0); }
    size_t RunFrom(size_t p, uint64_t flip) const
    {
        // The rest of p's word (the shift brings in zeros, which end nothing), then whole words.
        size_t w = p / 64;
        uint64_t other = (m_pBits[w] ^ flip) >> (p % 64);
        size_t end = p;
        while (other == 0) {
            end = 64 * ++w;
            if (end >= m_slots)
                return m_slots - p;
            other = m_pBits[w] ^ flip;
        }
        end += unsigned(__builtin_ctzll(other));
        return (end < m_slots ? end : m_slots) - p;
    }

    // The entry at the boundary before slot p; returns the slot after it.
    size_t Entry(size_t p)
    {
        if (!Bit(p))
            return Group(p);
        const size_t ones = Ones(p);
        return EndRun(ones, p + ones);
    }

    // A run of `run` matches that ends before slot p (or at the last slot). Runs of 1 to 5 fold
    // into a group: the matches from bit 5 down, then the non-match as a 0 bit, then the slots
    // after it. Returns the slot after the entry.
    size_t EndRun(size_t run, size_t p)
    {
        static const uint8_t FOLDED_GROUP[5] = {0, 0x20, 0x30, 0x38, 0x3C};
        if (p == m_slots) {
            WriteRunCode(run); // an open run at the end: no non-match follows
            m_remainder = 0;
            return p;
        }
        if (run < 5) {
            // The group may be cut short by the map's end: it is then written as it stands.
            const size_t left = m_slots - (p + 1);
            const unsigned width = left < 5 - run ? unsigned(left) : unsigned(5 - run);
            Put(uint8_t(FOLDED_GROUP[run] | (REVERSED6[Window(p + 1) & LowBits(width)] >> (run + 1))));
            m_remainder = 0;
            return p + 1 + width;
        }
        if (run == 5) {
            Put(0x3E);
            m_remainder = 0;
        } else {
            WriteRunCode(run);
        }
        return p + 1;
    }

    // A group from slot p, whose slot is a non-match or follows an all-zero group. All-zero groups
    // are counted and held back until a group with a match (or the map's end) comes.
    size_t Group(size_t p)
    {
        size_t heldBack = 0;
        const size_t zeros = Zeros(p);
        if (zeros >= 6) {
            heldBack = zeros - zeros % 6;
            p += heldBack;
        }
        const size_t left = m_slots - p;
        const unsigned width = left < 6 ? unsigned(left) : 6;
        const uint8_t group = REVERSED6[Window(p) & LowBits(width)];
        for (; heldBack > 63; heldBack -= 63)
            Put(0x7F);
        if (heldBack != 0)
            Put(uint8_t(0x40 | heldBack));
        Put(group);
        m_remainder = 0;
        return p + width;
    }

    // The long forms subtract their base; what is left decides whether the map closes with an
    // empty group when no slot follows.
    void WriteRunCode(size_t run)
    {
        if (run < 64) {
            Put(uint8_t(0x80 | run));
            m_remainder = run;
        } else if (run < 96) {
            Put(uint8_t(0xC0 | (run - 64)));
            m_remainder = run - 64;
        } else {
            const size_t rest = run - 96;
            m_runTooLong |= rest > 0x1FFF;
            Put(uint8_t(0xE0 | (rest >> 8)));
            Put(uint8_t(rest));
            m_remainder = rest;
        }
    }

    // Every entry covers at least six slots except a bounded few, so a segment's map stays far
    // below the staging array's size.
    void Put(uint8_t entry) { m_pMap[m_size++] = entry; }

    const uint64_t* m_pBits = nullptr;
    size_t m_slots = 0;
    uint8_t* m_pMap = nullptr;
    size_t m_size = 0;
    size_t m_remainder = 0;
    bool m_runTooLong = false;
};
