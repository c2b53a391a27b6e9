// The entry points through which HDF5 loads the plugin and registers filter 32910.
#include "MERTAX_Filter.h"

#include <H5PLextern.h>

const H5Z_class2_t H5Z_DULO_Filter = {
    H5Z_CLASS_T_VERS,       ZV_H5_MERTAX_FILTER_ID,       1, 1, "ZORV MERTAX Compression Filter",
    H5Z_dulo_can_apply_filter_cb, H5Z_dulo_set_local_filter_cb, H5Z_filter_dulo};

// HDF5's header exports these from a plugin built with MSVC but not with MinGW: marked here too.
MERTAX_API H5PL_type_t H5PLget_plugin_type() { return H5PL_TYPE_FILTER; }

MERTAX_API const void* H5PLget_plugin_info() { return &H5Z_DULO_Filter; }
