// An owning HDF5 identifier, shared by the programs that link HDF5 (tests, tools, benchmarks).
#pragma once

#include <hdf5.h>

#include <utility>

// Closes the identifier with the matching H5?close when it goes out of scope.
class CHid
{
public:
    CHid(hid_t id, herr_t (*close)(hid_t)) : m_id(id), m_close(close) {}
    CHid(CHid&& other) noexcept : m_id(std::exchange(other.m_id, H5I_INVALID_HID)), m_close(other.m_close) {}
    CHid(const CHid&) = delete;
    CHid& operator=(const CHid&) = delete;
    CHid& operator=(CHid&& other) noexcept
    {
        if (this != &other) {
            Close();
            m_id = std::exchange(other.m_id, H5I_INVALID_HID);
            m_close = other.m_close;
        }
        return *this;
    }
    ~CHid() { Close(); }
    herr_t Close() { return m_id >= 0 ? m_close(std::exchange(m_id, H5I_INVALID_HID)) : 0; }
    operator hid_t() const { return m_id; }
    bool Valid() const { return m_id >= 0; }

private:
    hid_t m_id;
    herr_t (*m_close)(hid_t);
};
