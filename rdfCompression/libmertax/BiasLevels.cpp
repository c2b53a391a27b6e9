// Choice of each segment's segmin and bias by compression level:
//   0      no bias;
//   1 to 7 a bias hint learnt from every (8 - level)-th compressed segment;
//   8      a histogram search on every segment;
//   9+     the segment minimum removed as well.
#include "OptimalBiasDulo.h"

#include "ByteAccess.h"
#include "FindDuloBias.h"
#include "Report.h"
#include "SegmentFormat.h"

#include <iostream>

namespace {

// pOut[i] = pIn[i] - value for `count` elements: blocks of 64 with a fixed count, which the
// compiler vectorizes, then the rest.
template <typename T>
void SubtractFromEach(const uint8_t* __restrict pIn, size_t count, T value, uint8_t* __restrict pOut)
{
    size_t i = 0;
    for (; count - i >= 64; i += 64)
        for (size_t k = 0; k < 64; ++k)
            StoreLE<T>(pOut + (i + k) * sizeof(T), T(LoadLE<T>(pIn + (i + k) * sizeof(T)) - value));
    for (; i < count; ++i)
        StoreLE<T>(pOut + i * sizeof(T), T(LoadLE<T>(pIn + i * sizeof(T)) - value));
}

} // namespace

template <typename T>
T COptimalBiasDulo::GetTrueMinForEncode(const uint8_t* pData, const size_t& elems)
{
    if (elems < TRUE_BIAS_MIN_ELEMS)
        return 0;
    T curMin = LoadLE<T>(pData);
    T curMax = curMin;
    size_t e = 1;
    // Stops at the first zero: nothing can be removed then. Blocks of 64 elements without that
    // test, which the compiler vectorizes; the block that holds a zero is looked at again for
    // where it stops.
    constexpr size_t BLOCK = 64;
    for (; curMin != 0 && elems - e >= BLOCK; e += BLOCK) {
        T blockMin = curMin;
        T blockMax = curMax;
        for (size_t i = 0; i < BLOCK; ++i) {
            const T value = LoadLE<T>(pData + (e + i) * sizeof(T));
            blockMin = value < blockMin ? value : blockMin;
            blockMax = value > blockMax ? value : blockMax;
        }
        if (blockMin == 0)
            break;
        curMin = blockMin;
        curMax = blockMax;
    }
    for (; curMin != 0 && e < elems; ++e) {
        const T value = LoadLE<T>(pData + e * sizeof(T));
        curMin = value < curMin ? value : curMin;
        curMax = value > curMax ? value : curMax;
    }
    if (m_debugCompression != 0) {
        CFormatGuard guard(std::cout);
        std::cout << "GetTrueMin: cur min: 0x" << std::hex << curMin << " e: " << std::dec << e << std::endl;
    }
    // A 16-bit segment that is to be coded as bytes must keep its values below 256 unshifted.
    if (sizeof(T) == 2 && m_reduceWordSize && curMax > 255)
        return 0;
    return curMin;
}

template <typename T>
size_t COptimalBiasDulo::LevelCompress(uint8_t* pUncData, const uint16_t& segSize, uint8_t* pCmpBuff)
{
    const size_t level = m_compressLevel;
    const size_t elems = segSize / sizeof(T);
    size_t result;
    if (level == MIN_COMPRESS_LEVEL) {
        result = Deflate<T>(pUncData, segSize, T(0), T(0), pCmpBuff);
    } else {
        T segmin = 0;
        T bias = 0;
        uint8_t* pData = pUncData;
        alignas(8) uint8_t reduced[MAX_SEGMENT_DATA]; // the segment less its minimum
        if (level >= SEGMIN_COMPRESS_LEVEL) {
            segmin = GetTrueMinForEncode<T>(pUncData, elems);
            if (segmin != 0 && segSize <= sizeof reduced) {
                SubtractFromEach(pUncData, elems, segmin, reduced);
                pData = reduced;
            } else {
                segmin = 0;
            }
        }
        if (level >= FIND_OPTBIAS_COMP_LEVEL) {
            bias = CFindDuloBias<T>().FindDuloBias(pData, elems);
            if (m_debugCompression != 0) {
                CFormatGuard guard(std::cout);
                std::cout << "L" << std::dec << level << " FindOptBias 0x" << std::hex << bias << " Seg " << std::dec
                          << m_segsProcessed << " segmin " << segmin << std::endl;
            }
        } else {
            bias = T(m_biasHint);
        }
        result = Deflate<T>(pData, segSize, segmin, bias, pCmpBuff);
    }

    ++m_segsProcessed;
    if (level >= HINT_OPTBIAS_COMP_LEVEL && level < FIND_OPTBIAS_COMP_LEVEL &&
        m_segsProcessed % (FIND_OPTBIAS_COMP_LEVEL - level) == 0) {
        T hint = 0;
        if (GetBiasHint<T>(pCmpBuff, result, &hint)) {
            m_biasHint = hint;
            if (m_debugCompression != 0) {
                CFormatGuard guard(std::cout);
                std::cout << "L" << std::dec << level << " BiasHint 0x" << std::hex << hint << " Seg " << std::dec
                          << m_segsProcessed << std::endl;
            }
        }
    }
    return result;
}

#define MERTAX_INSTANTIATE_LEVELS(T)                                                                                 \
    template T COptimalBiasDulo::GetTrueMinForEncode<T>(const uint8_t*, const size_t&);                             \
    template size_t COptimalBiasDulo::LevelCompress<T>(uint8_t*, const uint16_t&, uint8_t*);

MERTAX_INSTANTIATE_LEVELS(uint8_t)
MERTAX_INSTANTIATE_LEVELS(uint16_t)
MERTAX_INSTANTIATE_LEVELS(uint32_t)
MERTAX_INSTANTIATE_LEVELS(uint64_t)
