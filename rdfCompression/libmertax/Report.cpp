#include "Report.h"

namespace {

thread_local bool t_quiet = false;

} // namespace

std::recursive_mutex& OutputLock()
{
    static std::recursive_mutex lock;
    return lock;
}

CQuietCodec::CQuietCodec() : m_wasQuiet(t_quiet) { t_quiet = true; }
CQuietCodec::~CQuietCodec() { t_quiet = m_wasQuiet; }
bool CodecIsQuiet() { return t_quiet; }
