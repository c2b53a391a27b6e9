// Unaligned little-endian loads and stores, and prefetching. Compressed fields sit at any byte
// offset and caller buffers need not be aligned for their cell type, so every multi-byte access
// goes through memcpy.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__,
              "cells and compressed fields are little-endian; big-endian hosts are not supported");

template <typename T>
inline T LoadLE(const uint8_t* p)
{
    T value;
    std::memcpy(&value, p, sizeof value);
    return value;
}

template <typename T>
inline void StoreLE(uint8_t* p, T value)
{
    std::memcpy(p, &value, sizeof value);
}

// Asks for `bytes` from p to come into the cache while the caller works on what comes before:
// the encoder reads a segment's cells in one burst and then codes them for much longer, so
// without this every segment would begin by waiting for memory.
inline void Prefetch(const uint8_t* p, size_t bytes)
{
    for (size_t k = 0; k < bytes; k += 64)
        __builtin_prefetch(p + k);
}
