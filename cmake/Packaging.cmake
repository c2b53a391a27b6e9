# Installation and packaging: the plugin, the CMake package (mertax::mertax, mertax::chunkio), the
# pkg-config files, and the Debian package made by CPack. Everything goes under the prefix (and DESTDIR).
include(CMakePackageConfigHelpers)

# HDF5 loads every file in its plugin folder: one copy of the library under the plain name. When
# installing into /usr it also goes into the MPI build's folder: the plugin links no libhdf5, so
# the same file serves both.
set(MERTAX_PLUGIN_DIRS ${MERTAX_INSTALL_PLUGIN_DIR})
if(CMAKE_INSTALL_PREFIX STREQUAL "/usr" AND MERTAX_INSTALL_PLUGIN_DIR STREQUAL HDF5PC_PLUGIN_DIR)
  string(REPLACE "/hdf5/serial/" "/hdf5/openmpi/" MERTAX_MPI_PLUGIN_DIR "${MERTAX_INSTALL_PLUGIN_DIR}")
  if(NOT MERTAX_MPI_PLUGIN_DIR STREQUAL MERTAX_INSTALL_PLUGIN_DIR)
    list(APPEND MERTAX_PLUGIN_DIRS ${MERTAX_MPI_PLUGIN_DIR})
  endif()
endif()
foreach(dir ${MERTAX_PLUGIN_DIRS})
  install(FILES $<TARGET_FILE:mertax> DESTINATION ${dir} RENAME libmertax.so COMPONENT library)
endforeach()

set(MERTAX_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/mertax)
install(EXPORT mertaxTargets NAMESPACE mertax:: DESTINATION ${MERTAX_CMAKE_DIR} COMPONENT library)
configure_package_config_file(cmake/mertaxConfig.cmake.in ${PROJECT_BINARY_DIR}/mertaxConfig.cmake
  INSTALL_DESTINATION ${MERTAX_CMAKE_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/mertaxConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/mertaxConfig.cmake ${PROJECT_BINARY_DIR}/mertaxConfigVersion.cmake
  DESTINATION ${MERTAX_CMAKE_DIR} COMPONENT library)

# Programs linked through pkg-config find the library without LD_LIBRARY_PATH also when it is
# installed outside the system's library folders.
list(FIND CMAKE_C_IMPLICIT_LINK_DIRECTORIES "${CMAKE_INSTALL_FULL_LIBDIR}" MERTAX_LIBDIR_IS_SYSTEM)
if(MERTAX_LIBDIR_IS_SYSTEM EQUAL -1)
  set(MERTAX_PC_RPATH " -Wl,-rpath,\${libdir}")
endif()
# Paths relative to the file itself, so that it stays right under any prefix given at install time.
file(RELATIVE_PATH MERTAX_PC_TO_PREFIX "/prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/prefix")
configure_file(cmake/mertax.pc.in ${PROJECT_BINARY_DIR}/mertax.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/mertax.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT library)
if(TARGET mertax_chunkio)
  configure_file(cmake/mertax-chunkio.pc.in ${PROJECT_BINARY_DIR}/mertax-chunkio.pc @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/mertax-chunkio.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT library)
endif()

set(CPACK_PACKAGE_NAME libmertax)
set(CPACK_PACKAGE_VENDOR "libmertax developers")
set(CPACK_PACKAGE_CONTACT "libmertax developers <mertax@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "Lossless codec for detector data, with HDF5 filter plugin 32910")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_GENERATOR DEB)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEB_COMPONENT_INSTALL OFF)
set(CPACK_STRIP_FILES ON)
include(CPack)
