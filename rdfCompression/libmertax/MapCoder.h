// Builds a segment's map: the sequence of entries that classify every coded slot as a match (its
// nibble equals the bias's) or a non-match.
//
// Entries: 00bbbbbb a group of six slots (bit 5 first, 1 = match); 01nnnnnn n non-matches;
// 10nnnnnn, 110nnnnn and 111nnnnn+byte a run of n, 64 + n or 96 + n matches followed by one
// non-match. At an entry boundary a match opens a run and a non-match a group; all-zero groups
// are held back and written as non-match run entries, and the next group follows at once.
//
// The coder works entry by entry on the segment's match bits, through a 64-slot window: a run's
// length is a bit scan, a group is six bits turned round by a table, and a stretch of all-zero
// groups is counted from the length of the run of non-matches.
#pragma once

#include "BitOps.h"
#include "MapGroups.h"

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

    // The number of bits; the words after the last one that the map coder reads are cleared
    // (the buffer holds WORDS_PAST_LAST more than the bits need).
    size_t Close()
    {
        const size_t words = (m_size + 63) / 64;
        for (size_t w = 0; w < WORDS_PAST_LAST; ++w)
            m_pWords[words + w] = 0;
        return m_size;
    }

    static constexpr size_t WORDS_PAST_LAST = MAP_GROUPS_READ_PAST;

private:
    uint64_t* m_pWords;
    size_t m_size = 0;
};

class CMapCoder
{
public:
    // `groups`: the kernel set's vector step for stretches of groups, or null.
    explicit CMapCoder(MapGroupsFn groups = nullptr) : m_groups(groups) {}

    // Codes the map of `slots` coded slots (at least one) into pMap; bit i of pMatches[i / 64] is
    // slot i's match bit, as CMatchBits leaves them. `skipped` matching slots of the leading planes
    // that are not coded come before slot 0. Returns the map's size.
    size_t Code(const uint64_t* pMatches, size_t slots, size_t skipped, uint8_t* pMap)
    {
        // Everything lives in locals: stores to the map could otherwise alias the members.
        uint8_t* pOut = pMap;
        size_t remainder = 0;
        bool runTooLong = false;
        size_t p = 0;
        if (pMatches[0] & 1) {
            // The skipped slots and the matches after them make one run.
            const size_t ones = RunLength(pMatches, slots, 0, ~uint64_t(0));
            p = ones;
            if (p == slots) {
                pOut = PutRunCode(pOut, skipped + ones, remainder, runTooLong);
                remainder = 0; // an open run at the end: no non-match follows
            } else {
                p += 1 + EndRun(pOut, skipped + ones, Window(pMatches, p + 1), slots - p - 1, remainder, runTooLong);
            }
        } else if (skipped > 0) {
            // Slot 0 ends the run of skipped slots at once, even a short one.
            pOut = PutRunCode(pOut, skipped, remainder, runTooLong);
            p = 1;
        }
        size_t gridFrom = 0; // where the vector step may next be tried
        size_t pause = GRID_PAUSE_MIN;
        while (p < slots) {
            if (m_groups != nullptr && p >= gridFrom && slots - p >= GRID_WORTHWHILE) {
                // Where runs come often the step stops early; it then pauses for a while, longer
                // after each stop in a row, so that run-heavy stretches pay little for trying it
                // and noisy ones after them soon get it back.
                // The kernel advances a copy: were pOut's address taken, it would live in memory
                // throughout, and every group the scalar loop writes would wait on its reload.
                uint8_t* pGroupsOut = pOut;
                const size_t coded = m_groups(pMatches, p, slots, pGroupsOut);
                pOut = pGroupsOut;
                if (coded < GRID_WORTHWHILE) {
                    gridFrom = p + coded + pause;
                    pause = pause < GRID_PAUSE_MAX ? 2 * pause : GRID_PAUSE_MAX;
                } else {
                    pause = GRID_PAUSE_MIN;
                }
                if (coded != 0) {
                    remainder = 0;
                    p += coded;
                    if (coded >= GRID_WORTHWHILE) {
                        // The step stopped at a run of matches (or at its end, where one may
                        // follow): a run under 64 that a non-match ends is coded here, and the
                        // step tried again after it, which spares noisy data with runs the scalar
                        // coder's round trip for every run. The slot after the step's last group
                        // begins an entry.
                        const uint64_t window = Window(pMatches, p);
                        const unsigned ones = ~window == 0 ? 64 : unsigned(__builtin_ctzll(~window));
                        if (ones >= 6 && ones < 64 && ones < slots - p) {
                            *pOut++ = uint8_t(0x80 | ones);
                            remainder = ones;
                            p += ones + 1;
                        }
                    }
                    continue;
                }
            }
            size_t left = slots - p;
            uint64_t window = Window(pMatches, p);
            unsigned valid = left < 64 ? unsigned(left) : 64; // bits of window that are slots
            if (left >= 64) {
                // At a boundary, six slots that are neither all matches nor all non-matches make one
                // group entry whatever the slot first: a run of 1 to 5 matches folds into exactly
                // that group, and 0x3E is the group of five matches and a non-match. All-zero
                // groups are counted from the run of non-matches and go out, held back, in front of
                // the group after them, which follows at once whatever it holds.
                unsigned used = 0;
                for (; used <= 58; used += 6) {
                    unsigned group = unsigned(window >> used) & 0x3F;
                    if (group == 0x3F)
                        break; // a run of six or more matches
                    if (group == 0) {
                        const uint64_t rest = window >> used;
                        const unsigned zeros = rest == 0 ? 64 : unsigned(__builtin_ctzll(rest));
                        const unsigned whole = zeros - zeros % 6;
                        if (used + whole > 58)
                            break;
                        used += whole;
                        group = unsigned(window >> used) & 0x3F;
                        pOut = PutHeldBack(pOut, whole);
                    }
                    *pOut++ = REVERSED6[group];
                }
                if (used != 0) {
                    remainder = 0;
                    p += used;
                    if (used > 58)
                        continue;
                    window >>= used;
                    left -= used;
                    valid -= used;
                }
            }
            if (window & 1) {
                // A run of matches, counted in the window unless it may reach past it.
                size_t run = ~window == 0 ? 64 : unsigned(__builtin_ctzll(~window));
                if (run >= valid)
                    run = RunLength(pMatches, slots, p, ~uint64_t(0));
                if (run == left) {
                    pOut = PutRunCode(pOut, run, remainder, runTooLong);
                    remainder = 0;
                    break;
                }
                const uint64_t after = run + 1 < valid ? window >> (run + 1) : Window(pMatches, p + run + 1);
                p += run + 1 + EndRun(pOut, run, after, left - run - 1, remainder, runTooLong);
                continue;
            }
            // A group, after any all-zero groups, which are counted and held back until a group
            // with a match (or the map's end) comes.
            size_t zeros = window == 0 ? 64 : unsigned(__builtin_ctzll(window));
            if (zeros >= valid)
                zeros = RunLength(pMatches, slots, p, 0);
            if (zeros >= 6) {
                const size_t heldBack = zeros - zeros % 6;
                p += heldBack;
                left -= heldBack;
                window = Window(pMatches, p);
                pOut = PutHeldBack(pOut, heldBack);
            }
            const unsigned width = left < 6 ? unsigned(left) : 6;
            *pOut++ = REVERSED6[window & LowBits(width)];
            remainder = 0;
            p += width;
        }
        // At the end of a run code whose long form left a remainder, an empty group closes the map.
        if (remainder != 0)
            *pOut++ = 0;
        m_runTooLong = runTooLong;
        return size_t(pOut - pMap);
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

    // The 64 match bits from slot p on, slot p in bit 0 (bits past the last slot are garbage).
    static uint64_t Window(const uint64_t* pBits, size_t p)
    {
        const unsigned shift = unsigned(p % 64);
        const uint64_t low = pBits[p / 64] >> shift;
        return shift == 0 ? low : low | pBits[p / 64 + 1] << (64 - shift);
    }

    // The length of the run of matches (flip all ones) or non-matches (flip 0) from slot p, up to
    // the last slot: the rest of p's word (the shift brings in zeros, which end nothing), then
    // whole words.
    static size_t RunLength(const uint64_t* pBits, size_t slots, size_t p, uint64_t flip)
    {
        size_t w = p / 64;
        uint64_t other = (pBits[w] ^ flip) >> (p % 64);
        size_t end = p;
        while (other == 0) {
            end = 64 * ++w;
            if (end >= slots)
                return slots - p;
            other = pBits[w] ^ flip;
        }
        end += unsigned(__builtin_ctzll(other));
        return (end < slots ? end : slots) - p;
    }

    // The entry for a run of `run` matches ended by a non-match, followed by `left` slots whose
    // bits are `after`. Runs of 1 to 5 fold into a group: the matches from bit 5 down, then the
    // non-match as a 0 bit, then the slots after it (fewer at the map's end). Returns how many of
    // the slots after the non-match the entry took.
    static unsigned EndRun(uint8_t*& pOut, size_t run, uint64_t after, size_t left, size_t& remainder,
                           bool& runTooLong)
    {
        static const uint8_t FOLDED_GROUP[5] = {0, 0x20, 0x30, 0x38, 0x3C};
        if (run < 5) {
            const unsigned width = left < 5 - run ? unsigned(left) : unsigned(5 - run);
            *pOut++ = uint8_t(FOLDED_GROUP[run] | (REVERSED6[after & LowBits(width)] >> (run + 1)));
            remainder = 0;
            return width;
        }
        if (run == 5) {
            *pOut++ = 0x3E;
            remainder = 0;
        } else {
            pOut = PutRunCode(pOut, run, remainder, runTooLong);
        }
        return 0;
    }

    // Held-back all-zero groups as non-match run entries of up to 63 slots.
    static uint8_t* PutHeldBack(uint8_t* pOut, size_t heldBack)
    {
        for (; heldBack > 63; heldBack -= 63)
            *pOut++ = 0x7F;
        *pOut++ = uint8_t(0x40 | heldBack);
        return pOut;
    }

    // The long forms subtract their base; what is left decides whether the map closes with an
    // empty group when no slot follows.
    static uint8_t* PutRunCode(uint8_t* pOut, size_t run, size_t& remainder, bool& runTooLong)
    {
        if (run < 64) {
            *pOut++ = uint8_t(0x80 | run);
            remainder = run;
        } else if (run < 96) {
            *pOut++ = uint8_t(0xC0 | (run - 64));
            remainder = run - 64;
        } else {
            remainder = run - 96;
            runTooLong |= remainder > 0x1FFF;
            *pOut++ = uint8_t(0xE0 | (remainder >> 8));
            *pOut++ = uint8_t(remainder);
        }
        return pOut;
    }

    static constexpr size_t GRID_WORTHWHILE = 48; // slots: eight groups
    static constexpr size_t GRID_PAUSE_MIN = 64;  // slots
    static constexpr size_t GRID_PAUSE_MAX = 1024; // slots

    MapGroupsFn m_groups;
    bool m_runTooLong = false;
};
