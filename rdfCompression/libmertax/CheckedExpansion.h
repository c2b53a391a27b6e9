// The one contract by which every front end (the plugin, the C interface, Python, the tool, chunk
// I/O) expands a stream. A stream is accepted only when every segment is well formed by the
// decoder's own limits and holds cells of the expected width, the segments run to the last byte
// of the stream, and they expand to exactly the size the caller expects. All of that is checked
// from the segment headers before anything is written or allocated, so no input makes a front end
// allocate more than the stream really expands to. The codec prints nothing on this path.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

// The one place that knows which cell sizes the codec takes: 1, 2, 4 and 8 bytes.
bool IsCellSize(size_t cellBytes);
std::string CellSizeError(size_t cellBytes);

// What a stream expands to with cells of cellBytes, from its headers alone.
struct CStreamSize
{
    bool ok = false;
    size_t bytes = 0;  // when ok
    std::string error; // when not
};
CStreamSize CheckStream(const uint8_t* pCmp, size_t cmpSize, size_t cellBytes);

// Expands the stream into exactly `expected` bytes at pOut, on up to `threads` threads; false with
// the reason in `error` otherwise (pOut may then hold part of the data).
bool ExpandStream(const uint8_t* pCmp, size_t cmpSize, size_t cellBytes, void* pOut, size_t expected,
                  std::string& error, unsigned threads = 1);
