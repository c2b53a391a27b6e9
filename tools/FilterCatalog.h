// The HDF5 filters that users weigh against ours, as settings of a dataset creation property list,
// shared by the benchmarks and the mertax tool's bench verb. Plugins come through the plugin path;
// a choice whose filters this process cannot load for both writing and reading is left out.
#pragma once

#include <hdf5.h>

#include <functional>
#include <string>
#include <vector>

struct SFilterChoice
{
    std::string name;
    std::vector<H5Z_filter_t> needs; // filters that must be available
    std::function<void(hid_t dcpl, size_t cellSize)> apply;
};

// Filter 32910 at `level`; cellBytes 0 lets the plugin take the datatype's size.
inline SFilterChoice MertaxChoice(unsigned level)
{
    return {"mertax level " + std::to_string(level), {32910}, [level](hid_t dcpl, size_t) {
                const unsigned cd[] = {1, 1, 0, 0, 0, level};
                H5Pset_filter(dcpl, 32910, H5Z_FLAG_MANDATORY, 6, cd);
            }};
}

inline std::vector<SFilterChoice> OtherFilterChoices()
{
    return {
        {"gzip 4", {H5Z_FILTER_DEFLATE}, [](hid_t dcpl, size_t) { H5Pset_deflate(dcpl, 4); }},
        {"shuffle+gzip 4", {H5Z_FILTER_SHUFFLE, H5Z_FILTER_DEFLATE},
         [](hid_t dcpl, size_t) { H5Pset_shuffle(dcpl), H5Pset_deflate(dcpl, 4); }},
        {"szip", {H5Z_FILTER_SZIP}, [](hid_t dcpl, size_t) { H5Pset_szip(dcpl, H5_SZIP_NN_OPTION_MASK, 32); }},
        {"lz4 plugin", {32004}, [](hid_t dcpl, size_t) { H5Pset_filter(dcpl, 32004, H5Z_FLAG_MANDATORY, 0, nullptr); }},
        {"blosc lz4+bitshuffle plugin", {32001},
         [](hid_t dcpl, size_t) {
             const unsigned cd[] = {0, 0, 0, 0, 5, 2, 1}; // level 5, bit shuffle, LZ4
             H5Pset_filter(dcpl, 32001, H5Z_FLAG_MANDATORY, 7, cd);
         }},
        {"bitshuffle+lz4 plugin", {32008},
         [](hid_t dcpl, size_t) {
             const unsigned cd[] = {0, 2}; // automatic block size, LZ4; the plugin prepends its own words
             H5Pset_filter(dcpl, 32008, H5Z_FLAG_MANDATORY, 2, cd);
         }},
        {"zstd plugin", {32015},
         [](hid_t dcpl, size_t) {
             const unsigned cd[] = {3};
             H5Pset_filter(dcpl, 32015, H5Z_FLAG_MANDATORY, 1, cd);
         }},
    };
}

inline bool Available(const SFilterChoice& f)
{
    for (H5Z_filter_t id : f.needs) {
        unsigned info = 0;
        if (H5Zfilter_avail(id) <= 0 || H5Zget_filter_info(id, &info) < 0 ||
            !(info & H5Z_FILTER_CONFIG_ENCODE_ENABLED) || !(info & H5Z_FILTER_CONFIG_DECODE_ENABLED))
            return false;
    }
    return true;
}

inline hid_t CellType(size_t cellSize)
{
    return cellSize == 1 ? H5T_NATIVE_UINT8 : cellSize == 2 ? H5T_NATIVE_UINT16 : cellSize == 4 ? H5T_NATIVE_UINT32
                                                                                                  : H5T_NATIVE_UINT64;
}
