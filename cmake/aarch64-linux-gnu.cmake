# Cross build for ARM64 Linux with Debian's cross compiler. HDF5 and GoogleTest come from Debian's
# arm64 packages unpacked into a folder (MERTAX_ARM64_SYSROOT, by default build-arm64/sysroot,
# which `./run.sh test-arm64` fills); programs and tests run under qemu-aarch64 with that folder
# as their root for libraries.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)

if(DEFINED ENV{MERTAX_ARM64_SYSROOT})
  set(MERTAX_ARM64_SYSROOT "$ENV{MERTAX_ARM64_SYSROOT}")
else()
  get_filename_component(MERTAX_ARM64_SYSROOT "${CMAKE_CURRENT_LIST_DIR}/../build-arm64/sysroot" ABSOLUTE)
endif()
set(ARM64_LIBS "${MERTAX_ARM64_SYSROOT}/usr/lib/aarch64-linux-gnu")

# Libraries and packages of the target come from the unpacked folder first; header-only
# packages (Boost, CLI11) may come from the host.
set(CMAKE_FIND_ROOT_PATH "${MERTAX_ARM64_SYSROOT}")
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE BOTH)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE BOTH)
set(ENV{PKG_CONFIG_LIBDIR} "${ARM64_LIBS}/pkgconfig")
set(ENV{PKG_CONFIG_SYSROOT_DIR} "${MERTAX_ARM64_SYSROOT}")
# The libraries that HDF5 itself needs, found at link time in the unpacked folder.
set(CMAKE_EXE_LINKER_FLAGS_INIT "-Wl,-rpath-link,${ARM64_LIBS}:${MERTAX_ARM64_SYSROOT}/lib/aarch64-linux-gnu")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "-Wl,-rpath-link,${ARM64_LIBS}:${MERTAX_ARM64_SYSROOT}/lib/aarch64-linux-gnu")
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-aarch64-static -L "${MERTAX_ARM64_SYSROOT}")
