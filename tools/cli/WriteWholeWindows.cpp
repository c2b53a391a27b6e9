// Writing a file on Windows: "-" is standard output in binary mode; a device (NUL, CON) is written
// to; a regular file (or a new one) is replaced atomically through a temporary beside it, created
// exclusively, moved over the target when complete and removed on any failure.
#include "CliSupport.h"

#define WIN32_LEAN_AND_MEAN
#ifndef NOMINMAX
#define NOMINMAX
#endif
#include <windows.h>

#include <fcntl.h>
#include <io.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <random>

namespace {

std::string Cause() { return std::strerror(errno); }

// The system's message for GetLastError(), on one line.
std::string WindowsCause()
{
    char text[512];
    const DWORD n = FormatMessageA(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr, GetLastError(),
                                   0, text, sizeof(text), nullptr);
    std::string cause(text, n);
    while (!cause.empty() && (cause.back() == '\n' || cause.back() == '\r' || cause.back() == '.'))
        cause.pop_back();
    return cause.empty() ? "error " + std::to_string(GetLastError()) : cause;
}

// Writes all of `bytes` to fd; false with errno set on failure.
bool WriteAll(int fd, const std::vector<uint8_t>& bytes)
{
    for (size_t done = 0; done < bytes.size();) {
        const unsigned piece = unsigned(std::min<size_t>(bytes.size() - done, 1u << 30));
        const int n = _write(fd, bytes.data() + done, piece);
        if (n <= 0)
            return false;
        done += size_t(n);
    }
    return true;
}

void WriteToDescriptor(int fd, const std::string& name, const std::vector<uint8_t>& bytes)
{
    _setmode(fd, _O_BINARY);
    if (!WriteAll(fd, bytes))
        throw CCliError(EXIT_BAD_USAGE, "cannot write to " + name + ": " + Cause());
}

void ReplaceFile(const std::filesystem::path& target, const std::string& name, const std::vector<uint8_t>& bytes)
{
    std::random_device entropy;
    std::filesystem::path temporary;
    int fd = -1;
    for (int attempt = 0; attempt < 100 && fd < 0; ++attempt) {
        temporary = target;
        temporary.replace_filename("." + target.filename().string() + ".mertax-" + std::to_string(entropy()));
        fd = _wopen(temporary.c_str(), _O_WRONLY | _O_CREAT | _O_EXCL | _O_BINARY, _S_IREAD | _S_IWRITE);
        if (fd < 0 && errno != EEXIST)
            break;
    }
    if (fd < 0)
        throw CCliError(EXIT_BAD_USAGE, "cannot write " + name + ": " + Cause());
    bool ok = WriteAll(fd, bytes);
    std::string cause = Cause();
    ok = _close(fd) == 0 && ok;
    if (ok && !MoveFileExW(temporary.c_str(), target.c_str(), MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH)) {
        ok = false;
        cause = WindowsCause();
    }
    if (!ok) {
        _wremove(temporary.c_str());
        throw CCliError(EXIT_BAD_USAGE, "cannot write " + name + ": " + cause);
    }
}

} // namespace

void WriteWhole(const std::string& path, const std::vector<uint8_t>& bytes)
{
    if (path == "-") {
        std::fflush(stdout);
        WriteToDescriptor(_fileno(stdout), "standard output", bytes);
        return;
    }
    const std::filesystem::path target(path);
    std::error_code error;
    const std::filesystem::file_status status = std::filesystem::status(target, error);
    if (std::filesystem::is_directory(status))
        throw CCliError(EXIT_BAD_USAGE, "cannot write " + path + ": it is a folder");
    if (std::filesystem::exists(status) && !std::filesystem::is_regular_file(status)) {
        // A device: written to, never replaced.
        const int fd = _wopen(target.c_str(), _O_WRONLY | _O_BINARY);
        if (fd < 0)
            throw CCliError(EXIT_BAD_USAGE, "cannot write " + path + ": " + Cause());
        const bool ok = WriteAll(fd, bytes);
        const std::string cause = Cause();
        if (_close(fd) != 0 || !ok)
            throw CCliError(EXIT_BAD_USAGE, "cannot write " + path + ": " + cause);
        return;
    }
    ReplaceFile(target, path, bytes);
}
