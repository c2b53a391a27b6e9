#include "ExpansionFailure.h"

#include "SegmentFormat.h"

#include <sstream>

namespace {

thread_local CExpansionFailure t_failure;
thread_local bool t_quiet = false;

} // namespace

CQuietExpansion::CQuietExpansion() : m_wasQuiet(t_quiet) { t_quiet = true; }
CQuietExpansion::~CQuietExpansion() { t_quiet = m_wasQuiet; }
bool ExpansionIsQuiet() { return t_quiet; }

const CExpansionFailure& LastExpansionFailure() { return t_failure; }

void ClearExpansionFailure() { t_failure = CExpansionFailure(); }

void RecordExpansionFailure(size_t segment, size_t offset, size_t produced, const char* reason)
{
    t_failure = {true, segment, offset, produced, reason};
}

std::string DescribeExpansionShortfall(const uint8_t* pCmp, size_t cmpSize, size_t cellBytes, size_t produced,
                                       size_t expected)
{
    std::ostringstream text;
    const CExpansionFailure& f = t_failure;
    const CStreamWalk walk = WalkStream(pCmp, cmpSize);
    if (f.failed)
        text << "damaged data: segment " << f.segment << " at byte offset " << f.offset << " " << f.reason
             << " (after " << f.produced << " of " << expected << " bytes)";
    else if (!walk.whole)
        text << "damaged data: segment " << walk.segments << " at byte offset " << walk.badOffset
             << " has a length that is too short or runs past the data";
    else
        text << "the data expands to " << walk.dataBytes + (cellBytes == 2 ? walk.byteSegmentBytes : 0)
             << " bytes, not " << expected << " (" << produced << " expanded)";
    return text.str();
}
