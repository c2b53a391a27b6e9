#include "CliSupport.h"

#include <cerrno>
#include <cstring>
#include <fstream>
#include <iostream>
#include <iterator>
#ifdef _WIN32
#include <fcntl.h>
#include <io.h>
#endif

namespace {

std::string Cause() { return std::strerror(errno); }

std::vector<uint8_t> ReadStream(std::istream& in)
{
    return std::vector<uint8_t>(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

} // namespace

std::vector<uint8_t> ReadWhole(const std::string& path)
{
    if (path == "-") {
#ifdef _WIN32
        _setmode(_fileno(stdin), _O_BINARY); // no CR LF translation of raw bytes
#endif
        std::cin >> std::noskipws;
        return ReadStream(std::cin);
    }
    std::ifstream in(path, std::ios::binary);
    if (!in)
        throw CCliError(EXIT_BAD_USAGE, "cannot open " + path + ": " + Cause());
    std::vector<uint8_t> bytes = ReadStream(in);
    if (in.bad())
        throw CCliError(EXIT_BAD_USAGE, "cannot read " + path + ": " + Cause());
    return bytes;
}
