// The one way the plugin reports a failure: the line that the filter has always printed (standard
// output for the dataset callbacks, standard error for the filter function), and the same text on
// HDF5's error stack, so that an application, h5py's exception or a tool's error message says why.
#pragma once

#include "Report.h"

#include <sstream>
#include <string>

enum class EHdf5Error
{
    CALLBACK,  // a dataset callback refused
    BAD_VALUE, // a filter parameter is unusable
    FILTER,    // a chunk could not be compressed or expanded
};

// Pushes `text` on HDF5's default error stack under the filter pipeline's major error number;
// nothing when the plugin has not found its caller's HDF5.
void PushHdf5Error(const char* function, EHdf5Error kind, const std::string& text);

template <typename... Args>
std::string JoinText(const Args&... args)
{
    std::ostringstream text;
    (text << ... << args);
    return text.str();
}

template <typename... Args>
void ReportPluginFailure(std::ostream& os, const char* function, EHdf5Error kind, const Args&... args)
{
    const std::string text = JoinText(args...);
    ReportFailure(os, text);
    PushHdf5Error(function, kind, text);
}
