// Owning wrappers for HDF5 identifiers and small helpers for the plugin tests. The tests link
// HDF5 only: the filter comes in as a plugin, found through HDF5_PLUGIN_PATH.
#pragma once

#include "Hdf5Handle.h"
#include "mertax.h"

#include <gtest/gtest.h>
#include <hdf5.h>
#include <unistd.h>

#include <string>
#include <utility>
#include <vector>

// A scratch file for the running test; the process id keeps builds tested side by side apart.
inline std::string ScratchFile(const std::string& prefix)
{
    return testing::TempDir() + prefix + std::to_string(getpid()) + "_" +
           testing::UnitTest::GetInstance()->current_test_info()->name() + ".h5";
}

inline CHid CreateFile(const std::string& path)
{
    return CHid(H5Fcreate(path.c_str(), H5F_ACC_TRUNC, H5P_DEFAULT, H5P_DEFAULT), H5Fclose);
}

inline CHid OpenFile(const std::string& path)
{
    return CHid(H5Fopen(path.c_str(), H5F_ACC_RDWR, H5P_DEFAULT), H5Fclose);
}

inline CHid OpenDataset(hid_t file, const std::string& name)
{
    return CHid(H5Dopen2(file, name.c_str(), H5P_DEFAULT), H5Dclose);
}

inline hid_t UnsignedType(size_t cellBytes)
{
    switch (cellBytes) {
    case 1: return H5T_NATIVE_UINT8;
    case 2: return H5T_NATIVE_UINT16;
    case 4: return H5T_NATIVE_UINT32;
    default: return H5T_NATIVE_UINT64;
    }
}

// A chunked dataset of unsigned cells with filter 32910 and the given client data (none when
// empty), and the given fill value; invalid when HDF5 refuses to create it.
inline CHid CreateFilteredDataset(hid_t file, const std::string& name, size_t cellBytes,
                                  const std::vector<hsize_t>& dims, const std::vector<hsize_t>& chunk,
                                  const std::vector<unsigned>& cd, unsigned filterFlags = H5Z_FLAG_MANDATORY,
                                  uint64_t fill = 0)
{
    CHid space(H5Screate_simple(int(dims.size()), dims.data(), nullptr), H5Sclose);
    CHid dcpl(H5Pcreate(H5P_DATASET_CREATE), H5Pclose);
    H5Pset_chunk(dcpl, int(chunk.size()), chunk.data());
    H5Pset_fill_value(dcpl, H5T_NATIVE_UINT64, &fill);
    H5Pset_filter(dcpl, ZV_H5_MERTAX_FILTER_ID, filterFlags, cd.size(), cd.data());
    return CHid(H5Dcreate2(file, name.c_str(), UnsignedType(cellBytes), space, H5P_DEFAULT, dcpl, H5P_DEFAULT),
                H5Dclose);
}

inline herr_t WriteAll(hid_t dataset, size_t cellBytes, const std::vector<uint8_t>& bytes)
{
    return H5Dwrite(dataset, UnsignedType(cellBytes), H5S_ALL, H5S_ALL, H5P_DEFAULT, bytes.data());
}

// The whole dataset, or an empty vector when the read fails.
inline std::vector<uint8_t> ReadAll(hid_t dataset, size_t cellBytes, size_t totalBytes)
{
    std::vector<uint8_t> bytes(totalBytes);
    if (H5Dread(dataset, UnsignedType(cellBytes), H5S_ALL, H5S_ALL, H5P_DEFAULT, bytes.data()) < 0)
        return {};
    return bytes;
}

struct SStoredFilter
{
    unsigned flags = 0;
    std::vector<unsigned> cd;
    std::string name;
};

// Filter 32910's entry as stored with the dataset.
inline SStoredFilter StoredFilter(hid_t dataset)
{
    CHid dcpl(H5Dget_create_plist(dataset), H5Pclose);
    SStoredFilter stored;
    size_t count = 16;
    stored.cd.resize(count);
    char name[128] = {};
    H5Pget_filter_by_id2(dcpl, ZV_H5_MERTAX_FILTER_ID, &stored.flags, &count, stored.cd.data(), sizeof name, name, nullptr);
    stored.cd.resize(std::min<size_t>(count, 16));
    stored.name = name;
    return stored;
}
