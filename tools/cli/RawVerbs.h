// The verbs on raw files: compress cells into the filter's chunk bytes, and expand them again.
#pragma once

#include <string>

struct SRawOptions
{
    size_t cellBytes = 0;
    int level = 4;
    std::string in;
    std::string out;
};

void CompressRaw(const SRawOptions& options);
void ExpandRaw(const SRawOptions& options);
