// Reads the parameters of a fuzz case from the front of the input; what is left is the payload.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

class CFuzzInput
{
public:
    CFuzzInput(const uint8_t* data, size_t size) : m_data(data), m_size(size) {}

    // The next `bytes` bytes as a little-endian number; 0 once the input is exhausted.
    uint64_t Take(size_t bytes)
    {
        uint64_t value = 0;
        for (size_t i = 0; i < bytes && m_size != 0; ++i, ++m_data, --m_size)
            value |= uint64_t(*m_data) << (8 * i);
        return value;
    }
    const uint8_t* Rest() const { return m_data; }
    size_t RestSize() const { return m_size; }

private:
    const uint8_t* m_data;
    size_t m_size;
};

// A broken invariant is a finding: report it and abort so that the fuzzer keeps the input.
#define FUZZ_CHECK(condition)                                                                        \
    do {                                                                                             \
        if (!(condition)) {                                                                          \
            std::fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #condition);      \
            std::abort();                                                                            \
        }                                                                                            \
    } while (0)
