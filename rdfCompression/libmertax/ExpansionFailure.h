// Where and why the last expansion on this thread stopped short, for front ends that must say so
// in their own terms (an HDF5 error, a Python exception, a tool's message). The codec's own
// messages are unchanged; this only records what they describe. Each Decompress call clears it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

struct CExpansionFailure
{
    bool failed = false;
    size_t segment = 0;  // 0-based index of the segment that stopped the expansion
    size_t offset = 0;   // its byte offset in the compressed data
    size_t produced = 0; // bytes expanded before it
    const char* reason = "";
};

const CExpansionFailure& LastExpansionFailure();
void ClearExpansionFailure();
void RecordExpansionFailure(size_t segment, size_t offset, size_t produced, const char* reason);

// While one lives, expansions on this thread record their failures without printing the codec's
// lines: for front ends that report failures in their own way.
class CQuietExpansion
{
public:
    CQuietExpansion();
    ~CQuietExpansion();
    CQuietExpansion(const CQuietExpansion&) = delete;
    CQuietExpansion& operator=(const CQuietExpansion&) = delete;

private:
    bool m_wasQuiet;
};
bool ExpansionIsQuiet();

// One line for a user: why `produced` bytes came out of the cmpSize bytes at pCmp (expanded with
// cellBytes) where `expected` were wanted, with the segment and offset when a segment is at fault.
std::string DescribeExpansionShortfall(const uint8_t* pCmp, size_t cmpSize, size_t cellBytes, size_t produced,
                                       size_t expected);
