// The C interface on arbitrary bytes: mertax_decompressed_size and mertax_decompress agree on what
// they accept, nothing is written past dst_size, every failure has a reason, and cells that it
// compresses come back exactly.
#include "FuzzInput.h"
#include "mertax.h"

#include <cstring>
#include <initializer_list>
#include <memory>

namespace {

constexpr size_t CELL_SIZES[] = {1, 2, 4, 8};

void ExpandBytes(const uint8_t* pSrc, size_t size, size_t cellBytes, size_t guess)
{
    const size_t expected = mertax_decompressed_size(pSrc, size, cellBytes);
    FUZZ_CHECK(expected != 0 || mertax_last_error()[0] != '\0');
    // A destination of the claimed size must expand or fail with a reason; any other size must
    // fail. Each is allocated at its exact size, so that the sanitizers see an overrun.
    for (size_t dstSize : {expected, guess}) {
        if (dstSize == 0)
            continue;
        std::unique_ptr<uint8_t[]> dst(new uint8_t[dstSize]);
        const size_t got = mertax_decompress(pSrc, size, cellBytes, dst.get(), dstSize);
        FUZZ_CHECK(got == 0 || got == dstSize);
        FUZZ_CHECK(got != 0 || mertax_last_error()[0] != '\0');
        FUZZ_CHECK(got == 0 || dstSize == expected);
    }
}

void RoundTrip(const uint8_t* pCells, size_t size, size_t cellBytes, int level)
{
    size -= size % cellBytes;
    if (size == 0)
        return;
    const size_t bound = mertax_compress_bound(cellBytes, size);
    std::unique_ptr<uint8_t[]> cmp(new uint8_t[bound]);
    const size_t cmpSize = mertax_compress(pCells, size, cellBytes, level, cmp.get(), bound);
    FUZZ_CHECK(cmpSize != 0 && cmpSize <= bound);
    FUZZ_CHECK(mertax_decompressed_size(cmp.get(), cmpSize, cellBytes) == size);
    std::unique_ptr<uint8_t[]> back(new uint8_t[size]);
    FUZZ_CHECK(mertax_decompress(cmp.get(), cmpSize, cellBytes, back.get(), size) == size);
    FUZZ_CHECK(std::memcmp(back.get(), pCells, size) == 0);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    CFuzzInput input(data, size);
    const uint64_t control = input.Take(1);
    const size_t cellBytes = CELL_SIZES[control & 3];
    const size_t guess = input.Take(2);
    // Exactly the remaining bytes, so that reads past the end are caught.
    std::unique_ptr<uint8_t[]> payload(new uint8_t[input.RestSize() + 1]);
    std::memcpy(payload.get(), input.Rest(), input.RestSize());
    if (control & 4)
        RoundTrip(payload.get(), input.RestSize(), cellBytes, int((control >> 3) % 10));
    else
        ExpandBytes(payload.get(), input.RestSize(), cellBytes, guess);
    return 0;
}
