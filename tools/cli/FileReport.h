// inspect: what filter 32910 did with the datasets of an HDF5 file.
#pragma once

#include <string>
#include <vector>

struct SInspectOptions
{
    std::string file;
    std::vector<std::string> datasets; // all that use the filter when empty
    bool chunks = false;
    bool segments = false;
    bool json = false;
};

// Prints the report on standard output; returns the exit status (bad data when a chunk is damaged).
int Inspect(const SInspectOptions& options);
