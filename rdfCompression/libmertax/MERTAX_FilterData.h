// The filter's parameters and their client-data words:
//   filter version (1), encode version (1), bufferSize, flags, cellBytes, compressLevel.
#pragma once

#include "H5DefaultEncoder.h"

#include <cstdint>

class MERTAX_FilterData
{
public:
    void SetBufferSize(uint32_t bufferSize) { m_bufferSize = bufferSize; }
    uint32_t GetBufferSize() const { return m_bufferSize; }
    uint32_t GetFlags() const { return m_flags; }
    void SetCellBytes(uint32_t cellBytes) { m_cellBytes = cellBytes; }
    uint32_t GetCellBytes() const { return m_cellBytes; }
    void SetCompressLevel(uint32_t compressLevel) { m_compressLevel = compressLevel; }
    uint32_t GetCompressLevel() const { return m_compressLevel; }

    uint32_t m_bufferSize = 0;    // expanded bytes of one chunk
    uint32_t m_flags = 0;         // stored and shown, used by no operation
    uint32_t m_cellBytes = 0;     // 1, 2, 4 or 8
    uint32_t m_compressLevel = 0; // 0 to 9
};

class MERTAX_FilterConfig : public H5DefaultEncoder
{
public:
    static constexpr unsigned int FILTER_VERSION = 1;
    // Header and the four fields: the whole of the filter's client data.
    static constexpr size_t ENCODED_LENGTH = FILTER_DATA_HEADER_FIELDS + 4;

    void SetFilterData(const MERTAX_FilterData& data)
    {
        ResetValues();
        SetFilterVersion(FILTER_VERSION);
        AppendValue(data.m_bufferSize);
        AppendValue(data.m_flags);
        AppendValue(data.m_cellBytes);
        AppendValue(data.m_compressLevel);
    }

    // Takes the client data as HDF5 hands it over; HDF5 reports how many words the application
    // stored, which may be more than the filter's layout has. The result is not checked: a record
    // without a filter version keeps its defaults.
    void Load(const unsigned int cd_values[], size_t cd_nelmts, MERTAX_FilterData& data)
    {
        SetEncodedData(cd_values, unsigned(cd_nelmts < ENCODED_LENGTH ? cd_nelmts : ENCODED_LENGTH));
        GetFilterData(data);
    }

    // Leaves `data` untouched when no filter version has been set.
    void GetFilterData(MERTAX_FilterData& data) const
    {
        const unsigned int version = GetFilterVersion();
        ResetIterator();
        if (version == 0)
            return;
        data.m_bufferSize = GetNextValue<unsigned int>();
        data.m_flags = GetNextValue<unsigned int>();
        data.m_cellBytes = GetNextValue<unsigned int>();
        data.m_compressLevel = GetNextValue<unsigned int>();
    }
};
