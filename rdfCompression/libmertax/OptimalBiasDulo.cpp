// The codec object, its settings, and its diagnostic hex dump.
#include "OptimalBiasDulo.h"

#include "ByteAccess.h"
#include "Report.h"
#include "SegmentFormat.h"

#include <cstring>
#include <iomanip>
#include <iostream>

COptimalBiasDulo::COptimalBiasDulo()
    : m_reduceWordSize(false),
      m_inflateWordSize(0),
      m_debugCompression(0),
      m_compressLevel(DEFAULT_COMPRESS_LEVEL),
      m_biasHint(0),
      m_segsProcessed(0)
{
}

void COptimalBiasDulo::SetCompressLevel(const size_t& compressLevel) { m_compressLevel = compressLevel; }
void COptimalBiasDulo::SetReduceWordSize() { m_reduceWordSize = true; }
void COptimalBiasDulo::ClearReduceWordSize() { m_reduceWordSize = false; }
void COptimalBiasDulo::SetInflateWordSize(const size_t& inflateWordSize) { m_inflateWordSize = inflateWordSize; }
void COptimalBiasDulo::SetDebugLevel(size_t debugLevel) { m_debugCompression = debugLevel; }
size_t COptimalBiasDulo::GetDebugLevel() const { return m_debugCompression; }

void COptimalBiasDulo::HexDump(const std::string& info, const uint8_t* pData, size_t size, const void* pShownAddress)
{
    // The output lock without a format guard: the dump leaves the fill at '0' on purpose.
    std::lock_guard<std::recursive_mutex> lock(OutputLock());
    std::ostream& os = std::cout;
    const std::ios_base::fmtflags saved = os.flags();
    os << std::endl
       << info << "(" << std::dec << size << " bytes at address="
       << (pShownAddress != nullptr ? pShownAddress : static_cast<const void*>(pData)) << ")" << std::endl;
    // The row offset is padded with whatever fill the stream holds; the byte columns set it to
    // '0' and leave it there, so only the very first row the process prints pads with a blank.
    for (uint32_t row = 0; row < size; row += 16) {
        os << std::hex << std::nouppercase << std::setw(2) << row << ":";
        for (size_t i = row; i < size && i < size_t(row) + 16; ++i)
            os << " " << std::setw(2) << std::setfill('0') << unsigned(pData[i]);
        os << std::endl;
    }
    os << std::endl;
    os.flags(saved);
}
