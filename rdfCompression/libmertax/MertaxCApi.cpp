// The C interface: each call runs a fresh codec object, set up as the HDF5 filter sets up its own,
// checks its arguments first, expands by the checked contract, and says why it failed through
// mertax_last_error() rather than on the process's streams.
#include "mertax.h"

#include "CheckedExpansion.h"
#include "MertaxVersion.h"
#include "OptimalBiasDulo.h"
#include "Report.h"

#include <cstdlib>
#include <cstring>
#include <string>

namespace {

thread_local std::string t_lastError;

// Records the reason for the failing call and returns its failure value, 0.
size_t Fail(std::string reason)
{
    t_lastError = std::move(reason);
    return 0;
}

// The codec's worst case, or 0 when it does not fit in size_t.
size_t Bound(size_t cellBytes, size_t srcSize)
{
    COptimalBiasDulo codec;
    const size_t bound = codec.GetWorstCaseCmpBufSize(cellBytes, srcSize);
    return bound == SIZE_MAX ? 0 : bound;
}

} // namespace

size_t mertax_compress_bound(size_t cell_bytes, size_t src_size)
{
    t_lastError.clear();
    if (!IsCellSize(cell_bytes))
        return Fail(CellSizeError(cell_bytes));
    const size_t bound = Bound(cell_bytes, src_size);
    return bound != 0 ? bound : Fail("no buffer can hold the compressed form of " + std::to_string(src_size) + " bytes");
}

size_t mertax_compress(const void* src, size_t src_size, size_t cell_bytes, int level, void* dst,
                       size_t dst_capacity)
{
    return mertax_compress_mt(src, src_size, cell_bytes, level, dst, dst_capacity, 1);
}

size_t mertax_compress_mt(const void* src, size_t src_size, size_t cell_bytes, int level, void* dst,
                          size_t dst_capacity, unsigned threads)
{
    t_lastError.clear();
    if (src == nullptr || dst == nullptr)
        return Fail("a buffer is NULL");
    if (!IsCellSize(cell_bytes))
        return Fail(CellSizeError(cell_bytes));
    if (src_size == 0 || src_size % cell_bytes != 0)
        return Fail(std::to_string(src_size) + " bytes are not a whole, non-zero number of " +
                    std::to_string(cell_bytes) + "-byte cells");
    if (level < 0 || size_t(level) > COptimalBiasDulo::MAX_COMPRESS_LEVEL)
        return Fail("level must be 0 to 9, not " + std::to_string(level));
    const size_t bound = Bound(cell_bytes, src_size);
    if (bound == 0)
        return Fail("no buffer can hold the compressed form of " + std::to_string(src_size) + " bytes");
    CQuietCodec quiet;
    COptimalBiasDulo codec;
    if (cell_bytes == 2)
        codec.SetReduceWordSize();
    codec.SetCompressLevel(size_t(level));
    // The codec reads the cells only; it needs the bound's room while it works, so a smaller
    // destination gets the result by way of a buffer of its own.
    void* pUnc = const_cast<void*>(src);
    if (dst_capacity >= bound) {
        const size_t size = codec.CompressOnThreads(pUnc, src_size, cell_bytes, static_cast<uint8_t*>(dst), bound, threads);
        return size != 0 ? size : Fail("the codec could not compress the data");
    }
    uint8_t* pWork = static_cast<uint8_t*>(std::malloc(bound));
    if (pWork == nullptr)
        return Fail("cannot allocate " + std::to_string(bound) + " bytes");
    const size_t size = codec.CompressOnThreads(pUnc, src_size, cell_bytes, pWork, bound, threads);
    if (size != 0 && size <= dst_capacity)
        std::memcpy(dst, pWork, size);
    std::free(pWork);
    if (size == 0)
        return Fail("the codec could not compress the data");
    if (size > dst_capacity)
        return Fail("the compressed data needs " + std::to_string(size) + " bytes, not " + std::to_string(dst_capacity));
    return size;
}

size_t mertax_decompressed_size(const void* src, size_t src_size, size_t cell_bytes)
{
    t_lastError.clear();
    if (src == nullptr)
        return Fail("a buffer is NULL");
    const CStreamSize size = CheckStream(static_cast<const uint8_t*>(src), src_size, cell_bytes);
    if (!size.ok)
        return Fail(size.error);
    return size.bytes != 0 ? size.bytes : Fail("the data is empty");
}

size_t mertax_decompress(const void* src, size_t src_size, size_t cell_bytes, void* dst, size_t dst_size)
{
    return mertax_decompress_mt(src, src_size, cell_bytes, dst, dst_size, 1);
}

size_t mertax_decompress_mt(const void* src, size_t src_size, size_t cell_bytes, void* dst, size_t dst_size,
                            unsigned threads)
{
    t_lastError.clear();
    if (src == nullptr || dst == nullptr)
        return Fail("a buffer is NULL");
    if (dst_size == 0)
        return Fail("the destination is empty");
    std::string error;
    if (!ExpandStream(static_cast<const uint8_t*>(src), src_size, cell_bytes, dst, dst_size, error, threads))
        return Fail(error);
    return dst_size;
}

const char* mertax_last_error(void)
{
    return t_lastError.c_str();
}

const char* mertax_version(void)
{
    return MERTAX_VERSION_STRING;
}
