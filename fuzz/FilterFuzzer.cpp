// The HDF5 filter function in both directions with arbitrary client data and chunk bytes. A chunk
// that it compresses must expand back through it exactly.
#include "FuzzInput.h"
#include "MERTAX_Filter.h"

#include <cstdlib>
#include <cstring>
#include <iostream>
#include <vector>

namespace {

// A malloc'ed chunk buffer, as HDF5 hands it to a filter.
struct SChunk
{
    SChunk(const uint8_t* data, size_t size) : m_size(size), m_buf(std::malloc(size == 0 ? 1 : size))
    {
        if (size != 0)
            std::memcpy(m_buf, data, size);
    }
    ~SChunk() { std::free(m_buf); }
    size_t m_size;
    void* m_buf;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    CFuzzInput input(data, size);
    const uint64_t options = input.Take(1);
    const bool expand = options & 1;
    std::vector<unsigned> cd((options >> 1) % 9);
    for (unsigned& word : cd)
        word = unsigned(input.Take(1)); // small words: valid versions, cell sizes and levels come up
    // bufferSize, when present, is the chunk size in bytes; kept below 64 KiB here so that runs
    // do not spend their time allocating.
    if (cd.size() > 2)
        cd[2] = unsigned(input.Take(2));
    SChunk chunk(input.Rest(), input.RestSize());
    const void* before = chunk.m_buf;

    std::cout.setstate(std::ios::failbit);
    std::cerr.setstate(std::ios::failbit);
    const unsigned flags = expand ? H5Z_FLAG_REVERSE : 0;
    const size_t result = H5Z_filter_dulo(flags, cd.size(), cd.data(), input.RestSize(), &chunk.m_size, &chunk.m_buf);
    if (result == 0) {
        FUZZ_CHECK(chunk.m_buf == before); // a failure leaves HDF5's buffer alone
    } else if (!expand) {
        // Compression needs the cell size, the fifth word; the output must come back exactly with
        // bufferSize as set-local stores it.
        FUZZ_CHECK(result <= chunk.m_size && cd.size() > 4);
        cd[2] = unsigned(input.RestSize());
        const size_t expanded = H5Z_filter_dulo(H5Z_FLAG_REVERSE, cd.size(), cd.data(), result, &chunk.m_size,
                                                &chunk.m_buf);
        FUZZ_CHECK(expanded == input.RestSize());
        FUZZ_CHECK(std::memcmp(chunk.m_buf, input.Rest(), expanded) == 0);
    }
    std::cout.clear();
    std::cerr.clear();
    return 0;
}
