// Which objects of a file are datasets, with the object calls of HDF5 1.10 and of 1.12 and later
// (whose object information and visit callbacks are of another type).
#pragma once

#include <hdf5.h>

#include <string>
#include <vector>

#if H5_VERSION_GE(1, 12, 0)
using CObjectInfo = H5O_info2_t;
#else
using CObjectInfo = H5O_info_t;
#endif

inline bool IsDataset(hid_t file, const std::string& name)
{
    CObjectInfo info;
#if H5_VERSION_GE(1, 12, 0)
    const herr_t status = H5Oget_info_by_name3(file, name.c_str(), &info, H5O_INFO_BASIC, H5P_DEFAULT);
#else
    const herr_t status = H5Oget_info_by_name2(file, name.c_str(), &info, H5O_INFO_BASIC, H5P_DEFAULT);
#endif
    return status >= 0 && info.type == H5O_TYPE_DATASET;
}

// Every dataset of the file, by full name, in name order.
inline std::vector<std::string> AllDatasets(hid_t file)
{
    std::vector<std::string> names;
    auto collect = [](hid_t, const char* name, const CObjectInfo* info, void* pNames) -> herr_t {
        if (info->type == H5O_TYPE_DATASET)
            static_cast<std::vector<std::string>*>(pNames)->push_back(std::string("/") + name);
        return 0;
    };
#if H5_VERSION_GE(1, 12, 0)
    H5Ovisit3(file, H5_INDEX_NAME, H5_ITER_INC, collect, &names, H5O_INFO_BASIC);
#else
    H5Ovisit2(file, H5_INDEX_NAME, H5_ITER_INC, collect, &names, H5O_INFO_BASIC);
#endif
    return names;
}
