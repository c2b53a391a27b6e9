#include "H5DefaultEncoder.h"

#include <cstring>
#include <iterator>

namespace {

template <typename T>
T FromWord(unsigned int word)
{
    static_assert(sizeof(T) == sizeof(unsigned int), "client-data values are 32 bits");
    T value;
    std::memcpy(&value, &word, sizeof value);
    return value;
}

} // namespace

void H5DefaultEncoder::AppendValue(float val)
{
    unsigned int word;
    std::memcpy(&word, &val, sizeof word);
    m_values.push_back(word);
}

void H5DefaultEncoder::ResetIterator() const
{
    m_iter = m_values.begin();
    m_iterValid = true;
}

template <typename T>
T H5DefaultEncoder::GetNextValue() const
{
    if (!m_iterValid)
        ResetIterator();
    if (m_iter == m_values.end())
        return T(0);
    return FromWord<T>(*m_iter++);
}

template <typename T>
T H5DefaultEncoder::GetValue(size_t index) const
{
    if (index >= m_values.size())
        return T(0);
    return FromWord<T>(*std::next(m_values.begin(), long(index)));
}

const unsigned int* H5DefaultEncoder::GetEncodedData()
{
    m_memory.reset(new unsigned int[GetEncodedLength()]);
    m_memory[0] = m_filterVersion;
    m_memory[1] = m_encodeVersion;
    size_t i = FILTER_DATA_HEADER_FIELDS;
    for (unsigned int value : m_values)
        m_memory[i++] = value;
    return m_memory.get();
}

int H5DefaultEncoder::SetEncodedData(const unsigned int* values, unsigned int numElements)
{
    if (numElements < FILTER_DATA_HEADER_FIELDS)
        return -1;
    m_filterVersion = values[0];
    m_encodeVersion = values[1];
    if (m_encodeVersion != CURRENT_ENCODE_VERSION)
        return -1;
    m_values.clear();
    m_iterValid = false;
    m_memory.reset();
    m_values.assign(values + FILTER_DATA_HEADER_FIELDS, values + numElements);
    return 0;
}

template unsigned int H5DefaultEncoder::GetNextValue<unsigned int>() const;
template float H5DefaultEncoder::GetNextValue<float>() const;
template unsigned int H5DefaultEncoder::GetValue<unsigned int>(size_t) const;
template float H5DefaultEncoder::GetValue<float>(size_t) const;
