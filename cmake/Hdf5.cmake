# Debian's HDF5, named by flavour: installing the MPI flavour switches what plain `hdf5` names,
# and the build must not change with it. The plugin needs HDF5's headers only (it finds HDF5's
# functions in the process that loads it); the tests, tools and benchmarks link the serial library.
# Another HDF5 (a build installed under a prefix) is chosen with HDF5_ROOT: then only its own
# pkg-config file is looked at.
find_package(PkgConfig REQUIRED)
set(HDF5_ROOT "$ENV{HDF5_ROOT}" CACHE PATH "An HDF5 installed under this prefix to build against (empty: the system's)")
if(HDF5_ROOT)
  set(ENV{PKG_CONFIG_LIBDIR} "${HDF5_ROOT}/lib/pkgconfig")
  pkg_search_module(HDF5PC REQUIRED IMPORTED_TARGET GLOBAL hdf5)
else()
  pkg_search_module(HDF5PC REQUIRED IMPORTED_TARGET GLOBAL hdf5-serial hdf5)
endif()
pkg_get_variable(HDF5PC_PLUGIN_DIR ${HDF5PC_MODULE_NAME} PluginDir)
add_library(hdf5_headers INTERFACE)
target_include_directories(hdf5_headers INTERFACE ${HDF5PC_INCLUDE_DIRS})
# The plugin goes into HDF5's own plugin folder only when installing into /usr (as the Debian
# package does); any other prefix gets a folder of its own, for HDF5_PLUGIN_PATH. Left empty, the
# folder follows the prefix, also when the prefix of an existing build folder changes.
set(MERTAX_PLUGIN_DIR "" CACHE STRING "Where cmake --install puts the HDF5 plugin (empty: from the prefix)")
if(NOT MERTAX_PLUGIN_DIR STREQUAL "")
  set(MERTAX_INSTALL_PLUGIN_DIR "${MERTAX_PLUGIN_DIR}")
elseif(CMAKE_INSTALL_PREFIX STREQUAL "/usr" AND HDF5PC_PLUGIN_DIR)
  set(MERTAX_INSTALL_PLUGIN_DIR "${HDF5PC_PLUGIN_DIR}")
else()
  set(MERTAX_INSTALL_PLUGIN_DIR "${CMAKE_INSTALL_LIBDIR}/hdf5/plugins")
endif()
# A relative folder is taken under the prefix, also one given to cmake --install --prefix.
if(IS_ABSOLUTE "${MERTAX_INSTALL_PLUGIN_DIR}")
  set(MERTAX_FULL_PLUGIN_DIR "${MERTAX_INSTALL_PLUGIN_DIR}")
else()
  set(MERTAX_FULL_PLUGIN_DIR "${CMAKE_INSTALL_PREFIX}/${MERTAX_INSTALL_PLUGIN_DIR}")
endif()
message(STATUS "HDF5 plugin folder for installation: ${MERTAX_FULL_PLUGIN_DIR}")
