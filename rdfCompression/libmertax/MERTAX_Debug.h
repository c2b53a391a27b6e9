// The plugin's diagnostic switch: the environment variable MERTAX_DEBUG, on when it begins with
// "1", "y" or "Y". Read afresh at every test, so a running program can turn it on and off.
#pragma once

#include <cstdlib>

inline bool IsDuloDebugEnabled()
{
    const char* value = std::getenv("MERTAX_DEBUG");
    return value != nullptr && (value[0] == '1' || value[0] == 'y' || value[0] == 'Y');
}
