// The dataset callbacks: HDF5 calls them once when a dataset with filter 32910 is created.
#include "MERTAX_Debug.h"
#include "MERTAX_Filter.h"
#include "MERTAX_FilterData.h"
#include "Report.h"

#include <algorithm>
#include <cstdint>
#include <iomanip>
#include <iostream>

namespace {

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
    unsigned int flags = 0;
    size_t cd_nelmts = MERTAX_FilterConfig::ENCODED_LENGTH;
    unsigned int cd_values[MERTAX_FilterConfig::ENCODED_LENGTH] = {};
    if (H5Pget_filter_by_id2(dcpl_id, ZV_H5_MERTAX_FILTER_ID, &flags, &cd_nelmts, cd_values, 0, nullptr, nullptr) < 0) {
        ReportFailure(std::cout, "MERTAX cannot read local filter parameters");
        return -1;
    }

    // HDF5 reports how many words the application stored, which may be more than the array holds.
    MERTAX_FilterConfig config;
    MERTAX_FilterData filterData;
    config.SetEncodedData(cd_values, unsigned(std::min(cd_nelmts, MERTAX_FilterConfig::ENCODED_LENGTH)));
    config.GetFilterData(filterData);

    // The application must store encoded client data when it adds the filter; nothing is written
    // back here, so creation fails without it.
    if (config.GetFilterVersion() == 0) {
        ReportFailure(std::cout, "MERTAX filter version not set, updating to: ", MERTAX_FilterConfig::FILTER_VERSION);
        return -1;
    }

    // A negative element count is HDF5's error value.
    const size_t typeSize = H5Tget_size(type_id);
    const hssize_t numberOfElements = H5Sget_simple_extent_npoints(space_id);
    if (uint32_t(typeSize) == 0 || numberOfElements < 0 || uint32_t(numberOfElements) == 0) {
        ReportFailure(std::cout, "MERTAX filter can't determine the size of the dataset");
        return -1;
    }

    // The dataspace handed to this callback is that of one chunk.
    filterData.SetBufferSize(uint32_t(size_t(numberOfElements) * typeSize));
    config.SetFilterData(filterData);
    if (H5Pmodify_filter(dcpl_id, ZV_H5_MERTAX_FILTER_ID, flags, config.GetEncodedLength(), config.GetEncodedData()) < 0) {
        ReportFailure(std::cout, "MERTAX cannot write local filter parameters");
        return -1;
    }

    if (IsDuloDebugEnabled())
        ShowFilterParms(filterData);
    return 1;
}
