#include "ExpansionFailure.h"

namespace {

thread_local CExpansionFailure t_failure;

} // namespace

const CExpansionFailure& LastExpansionFailure() { return t_failure; }

void ClearExpansionFailure() { t_failure = CExpansionFailure(); }

void RecordExpansionFailure(size_t segment, size_t offset, size_t produced, const char* reason)
{
    t_failure = {true, segment, offset, produced, reason};
}
