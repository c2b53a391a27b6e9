// HDF5 filter 32910, "ZORV MERTAX Compression Filter": the filter function and the dataset
// callbacks. They have C linkage and plain names, so that HDF5 finds them in the plugin and
// programs that write pre-compressed chunks (H5Dwrite_chunk) can call the filter function too.
//
// Client data, six 32-bit words: filter version (1), encode version (1), bufferSize (filled in
// when the dataset is created), flags, cellBytes (1, 2, 4 or 8), compressLevel (0 to 9).
#pragma once

#include "MertaxApi.h"
#include "mertax.h" // ZV_H5_MERTAX_FILTER_ID

#include <hdf5.h>

#ifdef __cplusplus
extern "C" {
#endif

// Compresses the chunk in *buf (flags without H5Z_FLAG_REVERSE) or expands it; on success *buf is
// replaced by a malloc'ed buffer of *buf_size bytes and the valid byte count is returned, on
// failure 0 is returned and *buf is left as it was.
MERTAX_API size_t H5Z_filter_dulo(unsigned int flags, size_t cd_nelmts, const unsigned int cd_values[],
                                  size_t numOfbytes, size_t* buf_size, void** buf);

// Accepts every datatype and dataspace.
MERTAX_API htri_t H5Z_dulo_can_apply_filter_cb(hid_t dcpl_id, hid_t type_id, hid_t space_id);

// Stores the chunk's byte size as bufferSize in the dataset's client data; 1, or -1 on failure
// (which fails the dataset's creation).
MERTAX_API herr_t H5Z_dulo_set_local_filter_cb(hid_t dcpl_id, hid_t type_id, hid_t space_id);

MERTAX_API extern const H5Z_class2_t H5Z_DULO_Filter;
#ifdef __cplusplus
}
#endif
