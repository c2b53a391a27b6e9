// What each compressed segment of a chunk holds, read from its header, fields and map.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

struct SSegmentReport
{
    size_t offset = 0;      // in the chunk
    size_t length = 0;      // compSegSize: the whole segment, padding included
    bool compressed = false;
    unsigned cellBits = 8;  // the cells the segment codes (8, 16, 32 or 64)
    size_t segSize = 0;     // uncompressed bytes
    uint64_t bias = 0;
    uint64_t segmin = 0;
    unsigned codedPlanes = 0; // nibble planes with at least one non-match
    unsigned planes = 0;
    size_t fieldBytes = 0;  // header word and value fields
    size_t streamBytes = 0; // non-match stream
    size_t mapBytes = 0;    // map and padding
};

// The segments of the chunk of `size` bytes at pChunk; false, with `damage` saying where and why,
// when a segment cannot be read (the segments before it are kept).
bool ReportSegments(const uint8_t* pChunk, size_t size, std::vector<SSegmentReport>& segments, std::string& damage);

const char* CellName(unsigned cellBits);
