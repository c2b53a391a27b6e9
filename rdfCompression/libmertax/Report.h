// The one way the codec reports a failure: a single line, in decimal, on the stream the caller of
// the failing operation watches (standard output for expansion, standard error for compression).
#pragma once

#include <ostream>

template <typename... Args>
inline void ReportFailure(std::ostream& os, const Args&... args)
{
    const std::ios_base::fmtflags saved = os.flags();
    os << std::dec;
    (os << ... << args) << std::endl;
    os.flags(saved);
}
