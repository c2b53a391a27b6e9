// The HDF5 functions that the plugin calls, found at run time in the HDF5 library that called it.
//
// The plugin links no libhdf5: a process may hold the serial or the MPI build, or one that a
// program brings along, and the plugin must use the same one as its caller, since property-list
// and type identifiers mean nothing to another copy. The library is found from the address that a
// callback returns to (inside the HDF5 that called it), once, and kept for the process.
#pragma once

#include <hdf5.h>

#include <cstddef>

struct CHdf5Functions
{
    herr_t (*getFilterById)(hid_t, H5Z_filter_t, unsigned int*, size_t*, unsigned[], size_t, char[], unsigned*);
    herr_t (*modifyFilter)(hid_t, H5Z_filter_t, unsigned int, size_t, const unsigned int[]);
    size_t (*typeSize)(hid_t);
    hssize_t (*extentPoints)(hid_t);
    herr_t (*pushError)(hid_t, const char*, const char*, unsigned, hid_t, hid_t, hid_t, const char*, ...);
    // The error class and the major and minor error numbers that the plugin's errors are filed under.
    const hid_t* pErrorClass;
    const hid_t* pPipelineError;
    const hid_t* pCallbackError;
    const hid_t* pFilterError;
    const hid_t* pBadValueError;
};

// The functions of the HDF5 library that contains pCallerAddress (a return address inside it), or
// of the first HDF5 library in the process's global scope; nullptr when none has them all. The
// first successful binding is kept; thread-safe.
const CHdf5Functions* BindHdf5(const void* pCallerAddress);
// The binding made so far, or nullptr.
const CHdf5Functions* BoundHdf5();
