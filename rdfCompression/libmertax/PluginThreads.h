// The plugin's thread count for one chunk: the environment variable MERTAX_NTHREADS (like
// BLOSC_NTHREADS), read afresh for every chunk. Unset, empty, not a whole number or below 1 means
// 1; counts above the pool's limit are clamped to it.
#pragma once

#include "WorkerPool.h"

#include <cerrno>
#include <cstdlib>

inline unsigned PluginThreadCount()
{
    const char* value = std::getenv("MERTAX_NTHREADS");
    if (value == nullptr)
        return 1;
    char* end = nullptr;
    errno = 0;
    const long count = std::strtol(value, &end, 10);
    if (end == value || *end != '\0' || errno != 0 || count < 1)
        return 1;
    return count > long(MAX_THREADS) ? MAX_THREADS : unsigned(count);
}
