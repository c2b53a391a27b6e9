// The dataset callbacks: HDF5 calls them once when a dataset with filter 32910 is created.
#include "CheckedExpansion.h"
#include "Hdf5Binding.h"
#include "MERTAX_Debug.h"
#include "MERTAX_Filter.h"
#include "MERTAX_FilterData.h"
#include "OptimalBiasDulo.h"
#include "PluginReport.h"

#include <cstdint>
#include <iomanip>
#include <iostream>

namespace {

constexpr const char* SET_LOCAL = "H5Z_dulo_set_local_filter_cb";

void ShowFilterParms(const MERTAX_FilterData& d)
{
    CFormatGuard guard(std::cout);
    std::cout << std::dec << "MERTAX bufferSize: " << d.GetBufferSize() << std::endl;
    std::cout << "MERTAX flags: 0x" << std::hex << std::setfill('0') << std::setw(8) << d.GetFlags() << std::endl;
    std::cout << std::dec << "MERTAX cellBytes: " << d.GetCellBytes() << std::endl;
    std::cout << "MERTAX compressLevel: " << d.GetCompressLevel() << std::endl;
}

} // namespace

htri_t H5Z_dulo_can_apply_filter_cb(hid_t, hid_t, hid_t)
{
    return 1;
}

herr_t H5Z_dulo_set_local_filter_cb(hid_t dcpl_id, hid_t type_id, hid_t space_id)
{
    const CHdf5Functions* h5 = BindHdf5(__builtin_return_address(0));
    if (h5 == nullptr) {
        ReportFailure(std::cout, "MERTAX cannot find the functions of the HDF5 library that loaded it");
        return -1;
    }
    unsigned int flags = 0;
    size_t cd_nelmts = MERTAX_FilterConfig::ENCODED_LENGTH;
    unsigned int cd_values[MERTAX_FilterConfig::ENCODED_LENGTH] = {};
    if (h5->getFilterById(dcpl_id, ZV_H5_MERTAX_FILTER_ID, &flags, &cd_nelmts, cd_values, 0, nullptr, nullptr) < 0) {
        ReportPluginFailure(std::cout, SET_LOCAL, EHdf5Error::CALLBACK, "MERTAX cannot read local filter parameters");
        return -1;
    }

    MERTAX_FilterConfig config;
    MERTAX_FilterData filterData;
    config.Load(cd_values, cd_nelmts, filterData);

    // The application must store encoded client data when it adds the filter; nothing is written
    // back here, so creation fails without it.
    if (config.GetFilterVersion() == 0) {
        ReportPluginFailure(std::cout, SET_LOCAL, EHdf5Error::CALLBACK, "MERTAX filter version not set, updating to: ",
                            MERTAX_FilterConfig::FILTER_VERSION);
        return -1;
    }

    // Client data that no chunk could ever be read back with is refused now, not by every chunk.
    if (config.GetEncodeVersion() != MERTAX_FilterConfig::CURRENT_ENCODE_VERSION) {
        ReportPluginFailure(std::cout, SET_LOCAL, EHdf5Error::BAD_VALUE, "MERTAX filter encode version must be ",
                            MERTAX_FilterConfig::CURRENT_ENCODE_VERSION, ", not ", config.GetEncodeVersion());
        return -1;
    }
    if (filterData.GetCompressLevel() > COptimalBiasDulo::MAX_COMPRESS_LEVEL) {
        ReportPluginFailure(std::cout, SET_LOCAL, EHdf5Error::BAD_VALUE, "MERTAX filter compressLevel must be 0 to ",
                            COptimalBiasDulo::MAX_COMPRESS_LEVEL, ", not ", filterData.GetCompressLevel());
        return -1;
    }

    // A cell size of 0 takes the datatype's, so that one setting serves every integer type; a cell
    // size that the codec cannot use is refused now rather than by every chunk write.
    const size_t typeSize = h5->typeSize(type_id);
    if (filterData.GetCellBytes() == 0)
        filterData.SetCellBytes(uint32_t(typeSize));
    if (!IsCellSize(filterData.GetCellBytes())) {
        ReportPluginFailure(std::cout, SET_LOCAL, EHdf5Error::BAD_VALUE,
                            "MERTAX filter cellBytes must be 1, 2, 4 or 8, not ", filterData.GetCellBytes());
        return -1;
    }

    // A negative element count is HDF5's error value.
    const hssize_t numberOfElements = h5->extentPoints(space_id);
    if (uint32_t(typeSize) == 0 || numberOfElements < 0 || uint32_t(numberOfElements) == 0) {
        ReportPluginFailure(std::cout, SET_LOCAL, EHdf5Error::CALLBACK,
                            "MERTAX filter can't determine the size of the dataset");
        return -1;
    }

    // The dataspace handed to this callback is that of one chunk, which must hold whole cells.
    const size_t chunkBytes = size_t(numberOfElements) * typeSize;
    if (chunkBytes % filterData.GetCellBytes() != 0) {
        ReportPluginFailure(std::cout, SET_LOCAL, EHdf5Error::BAD_VALUE, "MERTAX filter cellBytes ",
                            filterData.GetCellBytes(), " does not divide the chunk's ", chunkBytes, " bytes");
        return -1;
    }
    filterData.SetBufferSize(uint32_t(chunkBytes));
    config.SetFilterData(filterData);
    if (h5->modifyFilter(dcpl_id, ZV_H5_MERTAX_FILTER_ID, flags, config.GetEncodedLength(), config.GetEncodedData()) <
        0) {
        ReportPluginFailure(std::cout, SET_LOCAL, EHdf5Error::CALLBACK, "MERTAX cannot write local filter parameters");
        return -1;
    }

    if (IsDuloDebugEnabled())
        ShowFilterParms(filterData);
    return 1;
}
