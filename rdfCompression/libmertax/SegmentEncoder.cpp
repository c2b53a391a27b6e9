// Segment encoder: codes one segment of elements of type T against a bias, nibble plane by
// nibble plane, and keeps the compressed form unless the raw bytes are shorter.
#include "OptimalBiasDulo.h"

#include "BitOps.h"
#include "ByteAccess.h"
#include "KernelDispatch.h"
#include "MapCoder.h"
#include "NibbleCoder.h"
#include "Report.h"
#include "SegmentFormat.h"

#include <algorithm>
#include <cstring>
#include <iostream>
#include <type_traits>

namespace {

// Longest segment the 13-bit compSegSize field can describe, as a multiple of 4.
constexpr size_t MAX_PADDED_SEGMENT = 8188;

} // namespace

template <typename T>
unsigned COptimalBiasDulo::CountSkippedPlanes(const uint8_t* pUncData, uint16_t segSize, T bias) const
{
    // OR of every element XOR bias: whole 64-bit words, then the tail, then the cells of the
    // 64-bit OR folded onto one.
    uint64_t diff64 = ActiveKernels().cells.orOfWords(pUncData, segSize / 8, RepeatCell<T>(bias));
    size_t i = segSize / 8 * 8;
    T diff = 0;
    for (; i < segSize; i += sizeof(T))
        diff |= T(LoadLE<T>(pUncData + i) ^ bias);
    for (unsigned width = 32; width >= 8 * sizeof(T); width >>= 1)
        diff64 |= diff64 >> width;
    diff |= T(diff64);

    unsigned skipped = 2 * sizeof(T) - 1;
    T maskT = T(~T(0xF)); // the planes above the one that would be coded first
    for (;;) {
        if (m_debugCompression > 1) {
            CFormatGuard guard(std::cout);
            std::cout << std::hex << "mask64: 0x" << RepeatCell<T>(maskT) << " maskT: 0x" << uint64_t(maskT)
                      << std::dec << std::endl;
        }
        if ((diff & maskT) == 0 || --skipped == 0)
            break;
        maskT = T(maskT << 4);
    }
    return skipped;
}

template <typename T>
size_t COptimalBiasDulo::Deflate(uint8_t* pUncData, const uint16_t& segSize, T segmin, const T& bias,
                                 uint8_t* pCmpBuff)
{
    if (!SegmentSizeAllowed(segSize) || segSize < sizeof(T))
        return 0;
    if (m_debugCompression > 10)
        HexDump("Uncompressed Data", pUncData, segSize);

    constexpr unsigned PLANES = 2 * sizeof(T);
    const size_t elems = segSize / sizeof(T);
    const unsigned skippedPlanes = CountSkippedPlanes<T>(pUncData, segSize, bias);

    // 16-bit elements whose high byte is 0, like the bias's, are written as a byte segment of
    // their low bytes: the two high planes simply do not exist there.
    bool reduced = false;
    if constexpr (std::is_same_v<T, uint16_t>)
        reduced = m_reduceWordSize && (bias & 0xFF00) == 0 && skippedPlanes >= 2;
    const size_t hdrBytes = reduced ? EncodeHeader<uint8_t>(uint16_t(segSize / 2), uint8_t(segmin), uint8_t(bias),
                                                            pCmpBuff)
                                    : EncodeHeader<T>(segSize, segmin, bias, pCmpBuff);
    if (hdrBytes == 0)
        return 0;
    const size_t dataBytes = reduced ? segSize / 2 : segSize;
    const size_t storedLength = 4 + (dataBytes == STD_SEGSIZE ? 0 : 2) + dataBytes;

    const unsigned firstShift = 4 * (PLANES - 1 - skippedPlanes);
    const CKernels& kernels = ActiveKernels();
    CNibbleCoder nibbles(uint8_t((bias >> firstShift) & 0xF), kernels.nibbles);
    const size_t skippedSlots = (reduced ? skippedPlanes - 2 : skippedPlanes) * elems;
    // Match bits of every coded slot, plane after plane; the map is coded from them at the end.
    uint64_t matchWords[2 * MAX_SEGMENT_DATA / 64 + CMatchBits::WORDS_PAST_LAST];
    CMatchBits matchBits(matchWords);
    // A plane's non-match nibbles are gathered into the coder and coded together at the plane's end.
    uint8_t* const planeNibbles = nibbles.PlaneNibbles();
    const SlotClassifyFn classify = kernels.classify;
    // The byte of every cell that holds the planes' nibbles, taken out once for its two planes
    // (byte cells are their own bytes).
    uint8_t byteRow[sizeof(T) == 1 ? 1 : MAX_SEGMENT_DATA / 2];
    unsigned byteInRow = sizeof(T);

    for (unsigned plane = skippedPlanes; plane < PLANES; ++plane) {
        const unsigned nibShift = 4 * (PLANES - 1 - plane);
        const uint8_t escape = uint8_t(bias >> nibShift) & 0xF;
        const unsigned byte = nibShift / 8;
        const bool high = nibShift % 8 != 0;
        const uint8_t* pBytes = pUncData;
        if constexpr (sizeof(T) > 1) {
            if (byte != byteInRow) {
                kernels.cells.byteRow(pUncData, sizeof(T), byte, elems / 64, byteRow);
                for (size_t e = elems / 64 * 64; e < elems; ++e)
                    byteRow[e] = uint8_t(LoadLE<T>(pUncData + e * sizeof(T)) >> (8 * byte));
                byteInRow = byte;
            }
            pBytes = byteRow;
        }
        // Slots are classified 64 at a time into masks of matches, and the non-matches' nibbles
        // gathered in slot order, from the row of bytes that every cell size comes to: the plane's
        // whole blocks in one call, then the slots after them.
        const size_t blocks = elems / 64;
        uint64_t blockMatches[MAX_SEGMENT_DATA / 64];
        size_t nonMatchCount = classify(pBytes, blocks, high, escape, planeNibbles, blockMatches);
        for (size_t b = 0; b < blocks; ++b)
            matchBits.Append(blockMatches[b], 64);
        if (const unsigned count = unsigned(elems % 64); count != 0) {
            const uint8_t* pTail = pBytes + 64 * blocks;
            uint64_t matches = 0;
            for (unsigned i = 0; i < count; ++i) {
                const uint8_t nibble = uint8_t(high ? pTail[i] >> 4 : pTail[i] & 0xF);
                matches |= uint64_t(nibble == escape) << i;
                planeNibbles[nonMatchCount] = nibble;
                nonMatchCount += nibble != escape;
            }
            matchBits.Append(matches, count);
        }
        nibbles.Plane(nonMatchCount, escape);
    }

    const size_t nonMatchLength =
        nibbles.Finish(uint8_t(bias & 0xF), pCmpBuff + hdrBytes, storedLength > hdrBytes ? storedLength - hdrBytes : 0);
    // A stream that alone outgrows the stored form decides the segment: its map is not needed.
    uint8_t cmpMap[WORST_CASE_COMP_MAP_SIZE];
    CMapCoder map(kernels.mapGroups);
    size_t mapSize = 0;
    if (hdrBytes + nonMatchLength <= storedLength || m_debugCompression > 10)
        mapSize = map.Code(matchWords, matchBits.Close(), skippedSlots, cmpMap);
    if (m_debugCompression > 10)
        HexDump("Compressed map", cmpMap, mapSize);
    const size_t compressedLength = hdrBytes + nonMatchLength + mapSize;
    const bool keepCompressed = compressedLength <= storedLength;

    if constexpr (std::is_same_v<T, uint16_t>) {
        // A 16-bit segment above 4096 bytes (word-size reduction holds all its values below 256)
        // that a hint with a non-zero high byte kept from being reduced may not fit the header's
        // fields; it is then coded as bytes with the bias's low byte.
        const bool overflows =
            (keepCompressed && (nonMatchLength > 0xFFF || map.RunTooLong())) ||
            RoundUp4(keepCompressed ? compressedLength : storedLength) > MAX_PADDED_SEGMENT;
        if (segSize > STD_SEGSIZE && !reduced && overflows)
            return (bias & 0xFF00) != 0 ? Deflate<uint16_t>(pUncData, segSize, segmin, T(bias & 0xFF), pCmpBuff) : 0;
    }

    SegmentHeader hdr = ReadSegmentHeader(pCmpBuff);
    hdr.nonMatchLength = nonMatchLength & 0xFFF;
    size_t length;
    if (keepCompressed) {
        hdr.mapCode = COMPRESSED_MC;
        std::memcpy(pCmpBuff + hdrBytes + nonMatchLength, cmpMap, mapSize);
        length = compressedLength;
    } else {
        hdr.mapCode = NOT_COMPRESSED_MC;
        if (segmin != 0) {
            for (size_t i = 0; i < elems; ++i)
                StoreLE<T>(pUncData + i * sizeof(T), T(LoadLE<T>(pUncData + i * sizeof(T)) + segmin));
        }
        uint8_t* pRaw = pCmpBuff + storedLength - dataBytes;
        if (reduced) {
            kernels.cells.byteRow(pUncData, sizeof(T), 0, elems / 64, pRaw);
            for (size_t i = elems / 64 * 64; i < elems; ++i)
                pRaw[i] = pUncData[i * sizeof(T)];
        } else {
            std::memcpy(pRaw, pUncData, segSize);
        }
        length = storedLength;
        if (m_debugCompression > 1) {
            CFormatGuard guard(std::cout);
            std::cout << std::dec << "NO_COMP vLen: " << storedLength << " segSize: " << segSize << std::endl;
        }
    }

    const size_t padded = RoundUp4(length);
    std::memset(pCmpBuff + length, 0, padded - length);
    hdr.compSegSize = padded & 0x1FFF;
    StoreLE<uint32_t>(pCmpBuff, hdr.ToWord());
    if (m_debugCompression > 10) {
        HexDump("Compressed Data", pCmpBuff, padded);
        --m_debugCompression;
    }
    return padded;
}

#define MERTAX_INSTANTIATE_ENCODER(T)                                                                                \
    template size_t COptimalBiasDulo::Deflate<T>(uint8_t*, const uint16_t&, T, const T&, uint8_t*);                 \
    template unsigned COptimalBiasDulo::CountSkippedPlanes<T>(const uint8_t*, uint16_t, T) const;

MERTAX_INSTANTIATE_ENCODER(uint8_t)
MERTAX_INSTANTIATE_ENCODER(uint16_t)
MERTAX_INSTANTIATE_ENCODER(uint32_t)
MERTAX_INSTANTIATE_ENCODER(uint64_t)
