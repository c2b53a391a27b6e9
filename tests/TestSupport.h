// Helpers shared by the codec tests: capture of a standard stream, hand-built segments,
// conversion between byte buffers and cells, and environment variables set for a test.
#pragma once

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <regex>
#include <sstream>
#include <string>
#include <vector>
#ifdef _WIN32
#include <io.h>
#define MERTAX_DUP _dup
#define MERTAX_DUP2 _dup2
#define MERTAX_CLOSE _close
#else
#include <unistd.h>
#define MERTAX_DUP dup
#define MERTAX_DUP2 dup2
#define MERTAX_CLOSE close
#endif

// Sets an environment variable, or removes it for nullptr (Windows removes it for "" too).
inline void SetEnvironment(const char* name, const char* value)
{
#ifdef _WIN32
    _putenv_s(name, value == nullptr ? "" : value);
#else
    if (value == nullptr)
        unsetenv(name);
    else
        setenv(name, value, 1);
#endif
}

// Captures what the process writes to standard output or error (stdout, stderr) for the object's
// lifetime, at the level of the file descriptor: also what a plugin writes through a C++ runtime of
// its own (on Windows each DLL may carry one, so std::cout in the plugin is not the test's).
class CCapturedOutput
{
public:
    explicit CCapturedOutput(std::FILE* pStream) : m_pStream(pStream)
    {
        Flush();
        m_saved = MERTAX_DUP(fileno(m_pStream));
        MERTAX_DUP2(fileno(m_pFile), fileno(m_pStream));
    }
    ~CCapturedOutput()
    {
        Flush();
        MERTAX_DUP2(m_saved, fileno(m_pStream));
        MERTAX_CLOSE(m_saved);
        std::fclose(m_pFile);
    }
    std::string Text()
    {
        Flush();
        std::string text;
        std::rewind(m_pFile);
        for (int c = std::fgetc(m_pFile); c != EOF; c = std::fgetc(m_pFile))
            text += char(c);
        return text;
    }

private:
    void Flush()
    {
        std::cout.flush();
        std::cerr.flush();
        std::fflush(m_pStream);
    }
    std::FILE* m_pStream;
    std::FILE* m_pFile = std::tmpfile();
    int m_saved;
};

// Redirects a standard stream (std::cout or std::cerr) into a string for the object's lifetime.
class CCapturedStream
{
public:
    explicit CCapturedStream(std::ostream& os) : m_os(os), m_saved(os.rdbuf(m_text.rdbuf())) {}
    ~CCapturedStream() { m_os.rdbuf(m_saved); }
    std::string Text() const { return m_text.str(); }
    // The text with every printed pointer replaced by "ADDR", for comparing whole dumps.
    std::string TextWithoutAddresses() const
    {
        return std::regex_replace(Text(), std::regex("0x[0-9a-f]+\\)"), "ADDR)");
    }

private:
    std::ostream& m_os;
    std::ostringstream m_text;
    std::streambuf* m_saved;
};

// The fields of one compressed segment; the header word is derived from them.
struct SegmentFields
{
    unsigned byteMode = 0;
    bool standard = false;    // true: 4096 bytes, no segSize field
    uint16_t segSize = 0;     // bytes, when not standard
    bool hasSegmin = false;
    uint64_t segmin = 0;
    bool hasBias = false;
    uint64_t bias = 0;
    int algVersion = -1;      // -1: 1 when a value field is present, else 0
    std::vector<uint8_t> stream;
    std::vector<uint8_t> map;
};

inline void AppendLE(std::vector<uint8_t>& out, uint64_t value, size_t bytes)
{
    for (size_t i = 0; i < bytes; ++i)
        out.push_back(uint8_t(value >> (8 * i)));
}

inline std::vector<uint8_t> BuildCompressedSegment(const SegmentFields& f)
{
    const size_t cellBytes = size_t(1) << f.byteMode;
    const unsigned algVersion = f.algVersion >= 0 ? unsigned(f.algVersion) : (f.hasBias || f.hasSegmin) ? 1 : 0;
    std::vector<uint8_t> seg(4);
    if (!f.standard)
        AppendLE(seg, f.segSize, 2);
    if (f.hasSegmin)
        AppendLE(seg, f.segmin, cellBytes);
    if (f.hasBias)
        AppendLE(seg, f.bias, cellBytes);
    seg.insert(seg.end(), f.stream.begin(), f.stream.end());
    seg.insert(seg.end(), f.map.begin(), f.map.end());
    seg.resize((seg.size() + 3) / 4 * 4, 0);
    const uint32_t word = uint32_t(f.standard) | 1u << 1 | f.byteMode << 2 | algVersion << 4 |
                          uint32_t(f.hasSegmin) << 6 | uint32_t(f.stream.size() & 0xFFF) << 7 |
                          uint32_t(seg.size()) << 19;
    std::memcpy(seg.data(), &word, 4);
    return seg;
}

inline std::vector<uint8_t> BuildStoredSegment(unsigned byteMode, const std::vector<uint8_t>& raw)
{
    const bool standard = raw.size() == 4096;
    std::vector<uint8_t> seg(4);
    if (!standard)
        AppendLE(seg, raw.size(), 2);
    seg.insert(seg.end(), raw.begin(), raw.end());
    seg.resize((seg.size() + 3) / 4 * 4, 0);
    const uint32_t word = uint32_t(standard) | byteMode << 2 | uint32_t(seg.size()) << 19;
    std::memcpy(seg.data(), &word, 4);
    return seg;
}

inline uint32_t LoadWord(const std::vector<uint8_t>& bytes)
{
    uint32_t word = 0;
    std::memcpy(&word, bytes.data(), 4);
    return word;
}

template <typename T>
std::vector<T> ToCells(const std::vector<uint8_t>& bytes)
{
    std::vector<T> cells(bytes.size() / sizeof(T));
    std::memcpy(cells.data(), bytes.data(), cells.size() * sizeof(T));
    return cells;
}

inline std::vector<uint8_t> Concat(std::initializer_list<std::vector<uint8_t>> parts)
{
    std::vector<uint8_t> out;
    for (const auto& p : parts)
        out.insert(out.end(), p.begin(), p.end());
    return out;
}
