// How the codec and the plugin speak: ReportFailure for the one line of a failure, in decimal, on
// the stream that the caller of the failing operation watches (standard output for expansion,
// standard error for compression); CFormatGuard around every other line written to the process's
// streams. Both hold one process-wide lock while they write, so that threads never interleave
// lines or race on a stream's format state, and both give the stream back as they found it (fill
// included; the hex dump alone keeps its fill quirk).
//
// CQuietCodec: while one lives on a thread, ReportFailure prints nothing there. The front ends
// that report failures through their own channel (the C interface, Python, the tool, chunk I/O)
// hold one, so that the codec's lines never mix with their users' output.
#pragma once

#include <mutex>
#include <ostream>

// The lock that every write to the process's standard streams by the library holds.
std::recursive_mutex& OutputLock();

class CFormatGuard
{
public:
    explicit CFormatGuard(std::ostream& os)
        : m_lock(OutputLock()), m_os(os), m_flags(os.flags()), m_fill(os.fill())
    {
    }
    ~CFormatGuard()
    {
        m_os.flags(m_flags);
        m_os.fill(m_fill);
    }
    CFormatGuard(const CFormatGuard&) = delete;
    CFormatGuard& operator=(const CFormatGuard&) = delete;

private:
    std::lock_guard<std::recursive_mutex> m_lock;
    std::ostream& m_os;
    std::ios_base::fmtflags m_flags;
    char m_fill;
};

class CQuietCodec
{
public:
    CQuietCodec();
    ~CQuietCodec();
    CQuietCodec(const CQuietCodec&) = delete;
    CQuietCodec& operator=(const CQuietCodec&) = delete;

private:
    bool m_wasQuiet;
};
bool CodecIsQuiet();

template <typename... Args>
inline void ReportFailure(std::ostream& os, const Args&... args)
{
    if (CodecIsQuiet())
        return;
    CFormatGuard guard(os);
    os << std::dec;
    (os << ... << args) << std::endl;
}
