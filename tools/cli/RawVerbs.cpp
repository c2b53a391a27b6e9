// compress and expand: raw cells to exactly the filter's chunk bytes, and back.
#include "RawVerbs.h"

#include "CheckedExpansion.h"
#include "CliSupport.h"
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
            throw CCliError(EXIT_BAD_DATA, "cannot compress " + o.in + ": " + mertax_last_error());
    }
    WriteWhole(o.out, out);
}

void ExpandRaw(const SRawOptions& o)
{
    const std::vector<uint8_t> cmp = ReadWhole(o.in);
    // The size comes from the checked headers, so nothing is allocated that the stream cannot fill.
    const CStreamSize size = CheckStream(cmp.data(), cmp.size(), o.cellBytes);
    if (!size.ok)
        throw CCliError(EXIT_BAD_DATA, o.in + ": " + size.error);
    std::vector<uint8_t> cells(size.bytes);
    std::string error;
    if (!ExpandStream(cmp.data(), cmp.size(), o.cellBytes, cells.data(), cells.size(), error))
        throw CCliError(EXIT_BAD_DATA, o.in + ": " + error);
    WriteWhole(o.out, cells);
}
