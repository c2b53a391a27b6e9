// Where and why the last expansion on this thread stopped short, for the checked expansion to say
// so in its message. The codec's own messages are unchanged; this only records what they describe.
// Each Decompress call clears it.
#pragma once

#include <cstddef>

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
