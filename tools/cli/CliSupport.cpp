#include "CliSupport.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>
#include <iterator>

std::vector<uint8_t> ReadWhole(const std::string& path)
{
    if (path == "-") {
        std::cin >> std::noskipws;
        return std::vector<uint8_t>(std::istreambuf_iterator<char>(std::cin), std::istreambuf_iterator<char>());
    }
    std::ifstream in(path, std::ios::binary);
    if (!in)
        throw CCliError(EXIT_BAD_USAGE, "cannot open " + path + ": " + std::strerror(errno));
    return std::vector<uint8_t>(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

void WriteWhole(const std::string& path, const std::vector<uint8_t>& bytes)
{
    if (path == "-") {
        std::cout.write(reinterpret_cast<const char*>(bytes.data()), std::streamsize(bytes.size()));
        std::cout.flush();
        if (!std::cout)
            throw CCliError(EXIT_BAD_USAGE, "cannot write to standard output");
        return;
    }
    const std::string temporary = path + ".mertax-partial";
    {
        std::ofstream out(temporary, std::ios::binary | std::ios::trunc);
        out.write(reinterpret_cast<const char*>(bytes.data()), std::streamsize(bytes.size()));
        out.close();
        if (!out) {
            std::remove(temporary.c_str());
            throw CCliError(EXIT_BAD_USAGE, "cannot write " + path);
        }
    }
    if (std::rename(temporary.c_str(), path.c_str()) != 0) {
        std::remove(temporary.c_str());
        throw CCliError(EXIT_BAD_USAGE, "cannot write " + path + ": " + std::strerror(errno));
    }
}

bool IsCellSize(size_t cellBytes)
{
    return cellBytes == 1 || cellBytes == 2 || cellBytes == 4 || cellBytes == 8;
}
