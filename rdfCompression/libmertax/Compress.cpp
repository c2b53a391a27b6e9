// Compression of a whole buffer: the worst-case output size.
#include "OptimalBiasDulo.h"

#include <algorithm>

size_t COptimalBiasDulo::GetWorstCaseCmpBufSize(const size_t& cellSize, const size_t& uncSize)
{
    // A full segment costs at most its bytes plus the header word; a short one also its size
    // field. The slack covers the padding and the value fields of a segment that ends up stored.
    const size_t segs = uncSize / STD_SEGSIZE;
    const size_t rem = uncSize % STD_SEGSIZE;
    const size_t needed = segs * (STD_SEGSIZE + 4) + (rem != 0 ? rem + 6 : 0);
    const size_t align = needed % 4;
    const size_t wipSpace = align != 0 ? std::max(4 - align, 2 * cellSize) : 2 * cellSize;
    return std::min<size_t>(needed + wipSpace, 0x4000000);
}
