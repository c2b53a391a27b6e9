// bench: the user's own data through HDF5 with our levels and the other filters this process can
// load, in a scratch folder, with ratio and write and read speeds side by side.
#pragma once

#include <string>

struct SBenchOptions
{
    std::string file;    // an HDF5 file, with `dataset`; or a raw file with `raw`
    std::string dataset;
    bool raw = false;
    size_t cellBytes = 0; // for raw files
    int repetitions = 3;
    unsigned threads = 0; // also our codec on this many threads with direct chunk I/O
};

int Bench(const SBenchOptions& options);
