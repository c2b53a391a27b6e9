// Marks what the library exports; everything else in it is hidden. On Windows the DLL exports what
// it is built with marked; programs using it need no mark (the import library resolves the calls).
#pragma once

#if defined(_WIN32)
#if defined(MERTAX_BUILDING_LIBRARY)
#define MERTAX_API __declspec(dllexport)
#else
#define MERTAX_API
#endif
#else
#define MERTAX_API __attribute__((visibility("default")))
#endif
