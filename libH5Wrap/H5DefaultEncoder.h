// Encoder of an HDF5 filter's client-data words: a two-word header (filter version, encode
// version) followed by the filter's 32-bit values in order. Floats travel as their IEEE bits.
#pragma once

#include <boost/scoped_array.hpp>

#include <cstddef>
#include <list>

class H5DefaultEncoder
{
public:
    static constexpr unsigned int CURRENT_ENCODE_VERSION = 1;
    static constexpr unsigned int FILTER_DATA_HEADER_FIELDS = 2;

    void SetFilterVersion(unsigned int version) { m_filterVersion = version; }
    unsigned int GetFilterVersion() const { return m_filterVersion; }
    unsigned int GetEncodeVersion() const { return m_encodeVersion; }

    void ResetValues() { m_values.clear(); }
    void AppendValue(unsigned int val) { m_values.push_back(val); }
    void AppendValue(float val);

    void ResetIterator() const;
    // The next value (unsigned int or float); 0 once the values are exhausted.
    template <typename T>
    T GetNextValue() const;
    // The value at `index`, counted from the first; 0 past the last.
    template <typename T>
    T GetValue(size_t index) const;

    unsigned int GetEncodedLength() const { return unsigned(m_values.size()) + FILTER_DATA_HEADER_FIELDS; }
    // The header and values as one array, owned by the encoder until the next call, a successful
    // SetEncodedData, or its destruction.
    const unsigned int* GetEncodedData();
    // Loads client data: -1 for fewer than two words (nothing changes) or an encode version
    // other than the current one (the header words are kept, the values are not); else 0.
    int SetEncodedData(const unsigned int* values, unsigned int numElements);

private:
    unsigned int m_filterVersion = 0;
    unsigned int m_encodeVersion = CURRENT_ENCODE_VERSION;
    std::list<unsigned int> m_values;
    mutable std::list<unsigned int>::const_iterator m_iter;
    mutable bool m_iterValid = false;
    boost::scoped_array<unsigned int> m_memory;
};
