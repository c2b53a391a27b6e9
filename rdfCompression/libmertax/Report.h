// How the codec and the plugin speak: ReportFailure for the one line of a failure, in decimal, on
// the stream that the caller of the failing operation watches (standard output for expansion,
// standard error for compression); CFormatGuard around diagnostic lines that switch a stream to
// hexadecimal or change its fill, so that the caller's stream comes back as it was.
#pragma once

#include <ostream>

class CFormatGuard
{
public:
    explicit CFormatGuard(std::ostream& os) : m_os(os), m_flags(os.flags()), m_fill(os.fill()) {}
    ~CFormatGuard()
    {
        m_os.flags(m_flags);
        m_os.fill(m_fill);
    }
    CFormatGuard(const CFormatGuard&) = delete;
    CFormatGuard& operator=(const CFormatGuard&) = delete;

private:
    std::ostream& m_os;
    std::ios_base::fmtflags m_flags;
    char m_fill;
};

template <typename... Args>
inline void ReportFailure(std::ostream& os, const Args&... args)
{
    CFormatGuard guard(os);
    os << std::dec;
    (os << ... << args) << std::endl;
}
