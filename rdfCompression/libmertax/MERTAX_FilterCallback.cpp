// The filter function: HDF5 calls it for every chunk, to compress it on write and to expand it on
// read. Each call decodes the dataset's client data and runs a fresh codec between HDF5's buffer
// and one buffer of its own, which replaces HDF5's on success.
#include "CheckedExpansion.h"
#include "Hdf5Binding.h"
#include "MERTAX_Debug.h"
#include "MERTAX_Filter.h"
#include "MERTAX_FilterData.h"
#include "OptimalBiasDulo.h"
#include "PluginReport.h"
#include "PluginThreads.h"

#include <cstdint>
#include <cstdlib>
#include <iomanip>
#include <iostream>

namespace {

constexpr const char* FILTER = "H5Z_filter_dulo";

size_t ExpandChunk(const MERTAX_FilterData& filterData, size_t numOfbytes, size_t* buf_size, void** buf)
{
    // Datasets whose client data lacks the chunk size expand into HDF5's buffer size.
    const uint32_t nbytes = filterData.GetBufferSize() != 0 ? filterData.GetBufferSize() : uint32_t(*buf_size);
    // An empty expansion would succeed with a count of 0, which HDF5 takes for failure after the
    // buffer has been swapped.
    if (nbytes == 0) {
        ReportPluginFailure(std::cerr, FILTER, EHdf5Error::FILTER, "MERTAX filter has no size to expand the chunk to");
        return 0;
    }
    void* outBuffer = std::malloc(nbytes);
    if (outBuffer == nullptr) {
        ReportPluginFailure(std::cerr, FILTER, EHdf5Error::FILTER, "MERTAX filter unable to malloc ", nbytes,
                            " bytes for data expansion");
        return 0;
    }
    if (IsDuloDebugEnabled()) {
        CFormatGuard guard(std::cout);
        std::cout << "MERTAX reading data at: " << std::hex << std::setfill('0') << *buf << std::dec
                  << " compressed bytes: " << numOfbytes << std::endl;
    }
    // The stream must be whole, of the dataset's cells, and expand to exactly the chunk's size: a
    // shorter buffer would be read past by HDF5, which copies a whole chunk out of it.
    std::string error;
    const bool whole = ExpandStream(static_cast<const uint8_t*>(*buf), numOfbytes, filterData.GetCellBytes(),
                                    outBuffer, nbytes, error, PluginThreadCount());
    const uint32_t dataWritten = whole ? nbytes : 0;
    if (IsDuloDebugEnabled()) {
        CFormatGuard guard(std::cout);
        std::cout << "MERTAX expanded to " << dataWritten << " bytes" << std::endl;
    }
    if (!whole) {
        ReportPluginFailure(std::cerr, FILTER, EHdf5Error::FILTER, "MERTAX cannot expand the chunk: ", error);
        std::free(outBuffer);
        return 0;
    }
    std::free(*buf);
    *buf = outBuffer;
    *buf_size = nbytes;
    return dataWritten;
}

std::string CompressFailureReason(uint32_t cellBytes, size_t bytes)
{
    if (!IsCellSize(cellBytes))
        return JoinText("MERTAX compress unsuccessful: cellBytes must be 1, 2, 4 or 8, not ", cellBytes);
    if (bytes == 0 || bytes % cellBytes != 0)
        return JoinText("MERTAX compress unsuccessful: a chunk of ", bytes, " bytes is not a whole number of ",
                        cellBytes, "-byte cells");
    return "MERTAX compress unsuccessful";
}

size_t CompressChunk(const MERTAX_FilterData& filterData, size_t numOfbytes, size_t* buf_size, void** buf)
{
    COptimalBiasDulo codec;
    const uint32_t cellBytes = filterData.GetCellBytes();
    const size_t bytesToDo = numOfbytes;
    if (cellBytes == 2) {
        codec.SetReduceWordSize();
        if (IsDuloDebugEnabled()) {
            CFormatGuard guard(std::cout);
            std::cout << "MERTAX compress filter will ReduceWordSize " << std::endl;
        }
    }
    // The true worst case, whatever the chunk's size: a smaller buffer could make Compress fail.
    const size_t outDataSize = codec.GetWorstCaseCmpBufSize(cellBytes, bytesToDo);
    uint8_t* outBuffer = static_cast<uint8_t*>(std::malloc(outDataSize));
    if (outBuffer == nullptr) {
        ReportPluginFailure(std::cerr, FILTER, EHdf5Error::FILTER, "MERTAX filter unable to malloc ", outDataSize,
                            " bytes for data compression");
        return 0;
    }
    codec.SetCompressLevel(filterData.GetCompressLevel());

    const uint32_t dataWritten = uint32_t(codec.CompressOnThreads(*buf, bytesToDo, cellBytes, outBuffer, outDataSize,
                                                                   PluginThreadCount()));
    if (dataWritten == 0) {
        ReportFailure(std::cerr, "Error: MERTAX compress unsuccessful ");
        PushHdf5Error(FILTER, EHdf5Error::FILTER, CompressFailureReason(cellBytes, bytesToDo));
        std::free(outBuffer);
        return 0;
    }
    std::free(*buf);
    *buf = outBuffer;
    // HDF5 gets the allocated size, not the compressed length.
    *buf_size = outDataSize;
    return dataWritten;
}

} // namespace

size_t H5Z_filter_dulo(unsigned int flags, size_t cd_nelmts, const unsigned int cd_values[], size_t numOfbytes,
                       size_t* buf_size, void** buf)
{
    // Client data that is missing or of another encode version leaves every parameter 0: expansion
    // then uses HDF5's buffer size and compression fails on the cell size.
    BindHdf5(__builtin_return_address(0));
    MERTAX_FilterConfig config;
    MERTAX_FilterData filterData;
    config.Load(cd_values, cd_nelmts, filterData);

    if (flags & H5Z_FLAG_REVERSE)
        return ExpandChunk(filterData, numOfbytes, buf_size, buf);
    return CompressChunk(filterData, numOfbytes, buf_size, buf);
}
