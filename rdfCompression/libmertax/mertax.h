/* libmertax: lossless compression of arrays of unsigned integers of 1, 2, 4 or 8 bytes.
 *
 * The C interface of the codec. A compressed stream is exactly what the HDF5 filter 32910 stores
 * for a chunk of the same cells at the same level, so streams move freely between files written
 * through HDF5 and programs that call these functions. Buffers need no alignment; every call uses
 * its own codec, so calls from different threads are safe. */
#ifndef MERTAX_H
#define MERTAX_H

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

#if defined(_WIN32)
#if defined(MERTAX_BUILDING_LIBRARY)
#define MERTAX_C_API __declspec(dllexport)
#else
#define MERTAX_C_API
#endif
#elif defined(__GNUC__)
#define MERTAX_C_API __attribute__((visibility("default")))
#else
#define MERTAX_C_API
#endif

/* The HDF5 filter id under which HDF5 stores these streams (H5Pset_filter, h5py's compression=). */
#define ZV_H5_MERTAX_FILTER_ID 32910

/* Every function below that returns 0 for a failure leaves the reason in mertax_last_error(). */

/* Capacity that always suffices to compress src_size bytes of cells of cell_bytes (1, 2, 4 or 8)
 * bytes; 0 for another cell size, or a size whose bound does not fit in size_t. */
MERTAX_C_API size_t mertax_compress_bound(size_t cell_bytes, size_t src_size);

/* Compresses src_size bytes of cells of cell_bytes bytes at level 0 to 9 (4 is the default; 16-bit
 * cells whose values fit in a byte are coded as bytes, as the HDF5 filter does). Returns the
 * compressed size, or 0 when the cell size is not 1, 2, 4 or 8, src_size is 0 or not a multiple of
 * it, the level is out of range, or the result does not fit in dst_capacity. Never writes past
 * dst_capacity, which may be smaller than the bound. */
MERTAX_C_API size_t mertax_compress(const void* src, size_t src_size, size_t cell_bytes, int level, void* dst,
                                    size_t dst_capacity);

/* mertax_compress with the segments coded on up to `threads` threads of the library's own pool
 * (0 and 1: the calling thread only; inputs under 64 KiB always stay on it). The bytes are those of
 * one thread, whatever the count. */
MERTAX_C_API size_t mertax_compress_mt(const void* src, size_t src_size, size_t cell_bytes, int level, void* dst,
                                       size_t dst_capacity, unsigned threads);

/* Bytes that the stream expands to in cells of cell_bytes (byte segments widened to 16-bit cells
 * when cell_bytes is 2), read from its segment headers; 0 for a damaged stream, one whose
 * segments hold cells of another width, an empty one, or a cell size other than 1, 2, 4 or 8.
 * A stream that this accepts is one that mertax_decompress accepts with that size, unless a
 * segment's coded data itself is damaged. */
MERTAX_C_API size_t mertax_decompressed_size(const void* src, size_t src_size, size_t cell_bytes);

/* Expands the whole stream into dst. Returns dst_size when every segment is whole, of cells of
 * cell_bytes, the segments end exactly at src_size and they expand to exactly dst_size bytes;
 * otherwise 0. Never writes past dst_size. */
MERTAX_C_API size_t mertax_decompress(const void* src, size_t src_size, size_t cell_bytes, void* dst,
                                      size_t dst_size);

/* mertax_decompress on up to `threads` threads of the library's pool, as mertax_compress_mt. */
MERTAX_C_API size_t mertax_decompress_mt(const void* src, size_t src_size, size_t cell_bytes, void* dst,
                                         size_t dst_size, unsigned threads);

/* Why the last call on this thread that returned 0 failed, in one line ("" after a success). The
 * text stays valid until the thread's next call into the library. */
MERTAX_C_API const char* mertax_last_error(void);

/* The library's version, "major.minor.patch". */
MERTAX_C_API const char* mertax_version(void);

#ifdef __cplusplus
}
#endif

#endif
