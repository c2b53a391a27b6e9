// The C interface: each call runs a fresh codec object, set up as the HDF5 filter sets up its own,
// and checks its arguments first so that the codec never reports them itself.
#include "mertax.h"

#include "ExpansionFailure.h"
#include "MertaxVersion.h"
#include "OptimalBiasDulo.h"
#include "SegmentFormat.h"

#include <cstdlib>
#include <cstring>

namespace {

bool IsCellSize(size_t cellBytes)
{
    return cellBytes == 1 || cellBytes == 2 || cellBytes == 4 || cellBytes == 8;
}

// The codec's worst case without its cap at 64 MiB, which would fail inputs whose compressed
// form comes near that size: every segment's bytes and header, and room for the last one's
// padding and value fields.
size_t Bound(size_t cellBytes, size_t srcSize)
{
    const size_t segs = srcSize / COptimalBiasDulo::STD_SEGSIZE;
    const size_t rem = srcSize % COptimalBiasDulo::STD_SEGSIZE;
    return segs * (COptimalBiasDulo::STD_SEGSIZE + 4) + (rem != 0 ? rem + 6 : 0) + 2 * cellBytes + 4;
}

} // namespace

size_t mertax_compress_bound(size_t cell_bytes, size_t src_size)
{
    return IsCellSize(cell_bytes) ? Bound(cell_bytes, src_size) : 0;
}

size_t mertax_compress(const void* src, size_t src_size, size_t cell_bytes, int level, void* dst,
                       size_t dst_capacity)
{
    if (!IsCellSize(cell_bytes) || src_size == 0 || src_size % cell_bytes != 0 || level < 0 ||
        size_t(level) > COptimalBiasDulo::MAX_COMPRESS_LEVEL || src == nullptr || dst == nullptr)
        return 0;
    COptimalBiasDulo codec;
    if (cell_bytes == 2)
        codec.SetReduceWordSize();
    codec.SetCompressLevel(size_t(level));
    const size_t bound = Bound(cell_bytes, src_size);
    // The codec reads the cells only; it needs the bound's room while it works, so a smaller
    // destination gets the result by way of a buffer of its own.
    void* pUnc = const_cast<void*>(src);
    if (dst_capacity >= bound)
        return codec.Compress(pUnc, src_size, cell_bytes, static_cast<uint8_t*>(dst), bound);
    uint8_t* pWork = static_cast<uint8_t*>(std::malloc(bound));
    if (pWork == nullptr)
        return 0;
    size_t size = codec.Compress(pUnc, src_size, cell_bytes, pWork, bound);
    if (size > dst_capacity)
        size = 0;
    if (size != 0)
        std::memcpy(dst, pWork, size);
    std::free(pWork);
    return size;
}

size_t mertax_decompressed_size(const void* src, size_t src_size, size_t cell_bytes)
{
    if (!IsCellSize(cell_bytes) || src == nullptr)
        return 0;
    const CStreamWalk walk = WalkStream(static_cast<const uint8_t*>(src), src_size);
    if (!walk.whole)
        return 0;
    return walk.dataBytes + (cell_bytes == 2 ? walk.byteSegmentBytes : 0);
}

size_t mertax_decompress(const void* src, size_t src_size, size_t cell_bytes, void* dst, size_t dst_size)
{
    if (!IsCellSize(cell_bytes) || src == nullptr || dst == nullptr || dst_size == 0)
        return 0;
    // Only whole segments are expanded. When the headers do not add up to dst_size, stop short of
    // it, so that only a whole stream of the right size ever returns dst_size.
    const bool exact = mertax_decompressed_size(src, src_size, cell_bytes) == dst_size;
    CQuietExpansion quiet;
    COptimalBiasDulo codec;
    codec.SetInflateWordSize(cell_bytes);
    size_t consumed = 0;
    const size_t produced =
        codec.Decompress(static_cast<const uint8_t*>(src), src_size, dst, exact ? dst_size : dst_size - 1, &consumed);
    return produced == dst_size && consumed != src_size ? 0 : produced;
}

const char* mertax_version(void)
{
    return MERTAX_VERSION_STRING;
}
