// compress and expand: raw cells to exactly the filter's chunk bytes, and back.
#include "RawVerbs.h"

#include "CliSupport.h"
#include "ExpansionFailure.h"
#include "SegmentFormat.h"
#include "mertax.h"

#include <sstream>

void CompressRaw(const SRawOptions& o)
{
    const std::vector<uint8_t> cells = ReadWhole(o.in);
    if (cells.size() % o.cellBytes != 0) {
        std::ostringstream text;
        text << o.in << " holds " << cells.size() << " bytes, not a whole number of " << o.cellBytes << "-byte cells";
        throw CCliError(EXIT_BAD_DATA, text.str());
    }
    std::vector<uint8_t> out;
    if (!cells.empty()) {
        out.resize(mertax_compress_bound(o.cellBytes, cells.size()));
        out.resize(mertax_compress(cells.data(), cells.size(), o.cellBytes, o.level, out.data(), out.size()));
        if (out.empty())
            throw CCliError(EXIT_BAD_DATA, "the codec could not compress " + o.in);
    }
    WriteWhole(o.out, out);
}

void ExpandRaw(const SRawOptions& o)
{
    const std::vector<uint8_t> cmp = ReadWhole(o.in);
    const CStreamWalk walk = WalkStream(cmp.data(), cmp.size());
    if (!walk.whole) {
        std::ostringstream text;
        text << o.in << " is damaged: segment " << walk.segments << " at byte offset " << walk.badOffset
             << " has a length that is too short or runs past the data";
        throw CCliError(EXIT_BAD_DATA, text.str());
    }
    std::vector<uint8_t> cells(walk.dataBytes + (o.cellBytes == 2 ? walk.byteSegmentBytes : 0));
    if (!cells.empty()) {
        CQuietExpansion quiet;
        const size_t produced = mertax_decompress(cmp.data(), cmp.size(), o.cellBytes, cells.data(), cells.size());
        if (produced != cells.size())
            throw CCliError(EXIT_BAD_DATA, o.in + " is " + DescribeExpansionShortfall(cmp.data(), cmp.size(), o.cellBytes,
                                                                               produced, cells.size()));
    }
    WriteWhole(o.out, cells);
}
