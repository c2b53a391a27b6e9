# Cross build for Windows x86-64 with Debian's mingw-w64 (its POSIX thread model, for std::thread);
# programs and tests run under wine. The C and C++ runtimes are linked in statically, so the DLL and
# the programs need nothing beside them.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)
set(CMAKE_C_COMPILER x86_64-w64-mingw32-gcc-posix)
set(CMAKE_CXX_COMPILER x86_64-w64-mingw32-g++-posix)
set(CMAKE_RC_COMPILER x86_64-w64-mingw32-windres)

set(CMAKE_FIND_ROOT_PATH /usr/x86_64-w64-mingw32)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
# Header-only packages (CLI11) come from the host.
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE BOTH)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE BOTH)

# GCC cannot align the Windows stack beyond 16 bytes, so the spills of 32- and 64-byte vectors in
# the AVX-512 kernels must not use aligned moves.
set(CMAKE_C_FLAGS_INIT "-Wa,-muse-unaligned-vector-move")
set(CMAKE_CXX_FLAGS_INIT "-Wa,-muse-unaligned-vector-move")
set(CMAKE_EXE_LINKER_FLAGS_INIT "-static")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "-static")

# A MinGW build of HDF5 to build the plugin against (a folder holding bin, include, lib).
if(DEFINED ENV{MERTAX_WINDOWS_HDF5})
  set(ENV{PKG_CONFIG_LIBDIR} "$ENV{MERTAX_WINDOWS_HDF5}/lib/pkgconfig")
  list(APPEND CMAKE_FIND_ROOT_PATH "$ENV{MERTAX_WINDOWS_HDF5}")
endif()

if(DEFINED ENV{MERTAX_WINE})
  set(CMAKE_CROSSCOMPILING_EMULATOR "$ENV{MERTAX_WINE}")
else()
  find_program(MERTAX_WINE NAMES wine64 wine PATHS /usr/lib/wine NO_CMAKE_FIND_ROOT_PATH)
  set(CMAKE_CROSSCOMPILING_EMULATOR "${MERTAX_WINE}")
endif()
