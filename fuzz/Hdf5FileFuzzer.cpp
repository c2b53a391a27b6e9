// A real HDF5 file with a fuzzed chunk and fuzzed filter settings, read by every front end that
// reads files: HDF5's own read through the plugin, threaded chunk I/O and the tool's inspect.
// Each must give data or an error; the two reads must agree whenever both succeed.
#include "FileReport.h"
#include "FuzzInput.h"
#include "ThreadedChunkIO.h"
#include "mertax.h"

#include <hdf5.h>
#include <unistd.h>

#include <cstring>
#include <iostream>
#include <string>
#include <vector>

namespace {


hid_t CellType(size_t cellBytes)
{
    switch (cellBytes) {
    case 1: return H5T_NATIVE_UINT8;
    case 2: return H5T_NATIVE_UINT16;
    case 4: return H5T_NATIVE_UINT32;
    default: return H5T_NATIVE_UINT64;
    }
}

struct SSetup
{
    SSetup()
    {
        H5Eset_auto2(H5E_DEFAULT, nullptr, nullptr);
        H5PLprepend(MERTAX_PLUGIN_DIR);
    }
};

// Writes a file with one dataset of two chunks, the first one stored as the fuzzer gives it, and
// returns false when HDF5 (or set-local) refuses the settings.
bool WriteFile(const std::string& path, size_t cellBytes, hsize_t chunkCells, const unsigned cd[6],
               bool fletcher32, const uint8_t* pChunk, size_t chunkSize)
{
    const hid_t file = H5Fcreate(path.c_str(), H5F_ACC_TRUNC, H5P_DEFAULT, H5P_DEFAULT);
    if (file < 0)
        return false;
    const hsize_t dims[] = {2 * chunkCells - 1}; // the second chunk is an edge chunk, never written
    const hid_t space = H5Screate_simple(1, dims, nullptr);
    const hid_t dcpl = H5Pcreate(H5P_DATASET_CREATE);
    H5Pset_chunk(dcpl, 1, &chunkCells);
    const uint64_t fill = 0x5A5A5A5A5A5A5A5Aull;
    H5Pset_fill_value(dcpl, H5T_NATIVE_UINT64, &fill);
    H5Pset_filter(dcpl, ZV_H5_MERTAX_FILTER_ID, H5Z_FLAG_MANDATORY, 6, cd);
    if (fletcher32)
        H5Pset_fletcher32(dcpl);
    const hid_t dataset = H5Dcreate2(file, "d", CellType(cellBytes), space, H5P_DEFAULT, dcpl, H5P_DEFAULT);
    bool ok = dataset >= 0;
    if (ok) {
        const hsize_t origin[] = {0};
        // With Fletcher-32 after the filter, the stored chunk carries its checksum, which the
        // fuzzer's bytes will mostly get wrong: HDF5 refuses those, as it must.
        ok = H5Dwrite_chunk(dataset, H5P_DEFAULT, 0, origin, chunkSize, pChunk) >= 0;
        H5Dclose(dataset);
    }
    H5Pclose(dcpl);
    H5Sclose(space);
    H5Fclose(file);
    return ok;
}

void ReadEveryWay(const std::string& path, size_t cellBytes, hsize_t chunkCells)
{
    const size_t bytes = size_t(2 * chunkCells - 1) * cellBytes;
    std::vector<uint8_t> pipeline(bytes), threaded(bytes);
    const hid_t file = H5Fopen(path.c_str(), H5F_ACC_RDONLY, H5P_DEFAULT);
    FUZZ_CHECK(file >= 0);
    const hid_t dataset = H5Dopen2(file, "d", H5P_DEFAULT);
    const bool read = H5Dread(dataset, CellType(cellBytes), H5S_ALL, H5S_ALL, H5P_DEFAULT, pipeline.data()) >= 0;
    CThreadedChunkIO io(dataset, 2);
    const bool readThreaded = io.Read(threaded.data());
    FUZZ_CHECK(readThreaded || !io.Error().empty());
    // Chunk I/O reads what HDF5 reads, the fill value included.
    if (read && readThreaded)
        FUZZ_CHECK(pipeline == threaded);
    H5Dclose(dataset);
    H5Fclose(file);

    SInspectOptions options;
    options.file = path;
    options.chunks = options.segments = true;
    std::cout.setstate(std::ios::failbit);
    std::cerr.setstate(std::ios::failbit);
    const int status = Inspect(options);
    std::cout.clear();
    std::cerr.clear();
    FUZZ_CHECK(status == 0 || status == 1);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static SSetup setup;
    static const std::string path = "/tmp/mertax-fuzz-" + std::to_string(getpid()) + ".h5";
    CFuzzInput input(data, size);
    const uint64_t control = input.Take(1);
    const size_t cellBytes = size_t(1) << (control & 3);
    const hsize_t chunkCells = 1 + input.Take(2) % 8192;
    // The client data as an application might store it: versions, flags, cell size and level.
    const unsigned cd[6] = {unsigned(input.Take(1) % 3), unsigned(input.Take(1) % 3), 0, 0,
                            unsigned(input.Take(1) % 10), unsigned(input.Take(1) % 12)};
    const std::vector<uint8_t> chunk(input.Rest(), input.Rest() + input.RestSize());
    if (chunk.empty())
        return 0;
    // HDF5 1.10's Fletcher-32 reads far before a chunk of fewer than 4 bytes (its own fault, not
    // the plugin's): such chunks go without it.
    const bool fletcher32 = (control & 4) != 0 && chunk.size() >= 4;
    if (WriteFile(path, cellBytes, chunkCells, cd, fletcher32, chunk.data(), chunk.size()))
        ReadEveryWay(path, cellBytes, chunkCells);
    std::remove(path.c_str());
    return 0;
}
