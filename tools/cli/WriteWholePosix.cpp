// Writing a file on POSIX systems: written to where a descriptor or device points, else replaced
// atomically beside itself.
#include "CliSupport.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>

namespace {

std::string Cause() { return std::strerror(errno); }

// Writes all of `bytes` to fd; false with errno set on failure.
bool WriteAll(int fd, const std::vector<uint8_t>& bytes)
{
    for (size_t done = 0; done < bytes.size();) {
        const ssize_t n = write(fd, bytes.data() + done, bytes.size() - done);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return false;
        done += size_t(n);
    }
    return true;
}

// The descriptor that "-" or a /dev name of an open descriptor stands for, else -1: these are
// written to where they point, not reopened (a reopened /dev/stdout would lose the shell's
// append mode and offset).
int OpenDescriptor(const std::string& path)
{
    if (path == "-" || path == "/dev/stdout")
        return STDOUT_FILENO;
    if (path == "/dev/stderr")
        return STDERR_FILENO;
    const std::string prefix = "/dev/fd/";
    if (path.compare(0, prefix.size(), prefix) == 0 && path.size() > prefix.size() &&
        path.find_first_not_of("0123456789", prefix.size()) == std::string::npos)
        return std::atoi(path.c_str() + prefix.size());
    return -1;
}

// The temporary file of the write under way, removed by a signal that ends the tool.
char g_temporary[4096];

extern "C" void RemoveTemporaryAndDie(int sig)
{
    if (g_temporary[0] != '\0')
        unlink(g_temporary);
    signal(sig, SIG_DFL);
    raise(sig);
}

// Replaces the regular file (or nothing) at `target` with `bytes` atomically: a temporary file
// beside it, created exclusively with a name no one can plant in advance, given the target's
// permissions, renamed over it when complete; removed on any failure or on SIGINT, SIGTERM,
// SIGHUP.
void ReplaceFile(const std::string& target, const std::vector<uint8_t>& bytes, const struct stat* pExisting)
{
    const size_t slash = target.rfind('/');
    const std::string folder = slash == std::string::npos ? "." : target.substr(0, slash + 1);
    const std::string base = slash == std::string::npos ? target : target.substr(slash + 1);
    std::string pattern = folder + (slash == std::string::npos ? "/" : "") + "." + base + ".mertax-XXXXXX";
    if (pattern.size() >= sizeof(g_temporary))
        throw CCliError(EXIT_BAD_USAGE, "cannot write " + target + ": the path is too long");
    std::strcpy(g_temporary, pattern.c_str());
    for (int sig : {SIGINT, SIGTERM, SIGHUP})
        signal(sig, RemoveTemporaryAndDie);
    const int fd = mkstemp(g_temporary);
    if (fd < 0) {
        g_temporary[0] = '\0';
        throw CCliError(EXIT_BAD_USAGE, "cannot write " + target + ": " + Cause());
    }
    // A new file gets what the umask allows of rw-rw-rw-, an existing one keeps its mode.
    mode_t mode;
    if (pExisting != nullptr) {
        mode = pExisting->st_mode & 07777;
    } else {
        const mode_t mask = umask(0);
        umask(mask);
        mode = 0666 & ~mask;
    }
    bool ok = fchmod(fd, mode) == 0 && WriteAll(fd, bytes);
    const int savedErrno = errno;
    ok = close(fd) == 0 && ok;
    if (ok)
        ok = rename(g_temporary, target.c_str()) == 0;
    else if (errno == 0)
        errno = savedErrno;
    const std::string cause = Cause();
    if (!ok)
        unlink(g_temporary);
    g_temporary[0] = '\0';
    if (!ok)
        throw CCliError(EXIT_BAD_USAGE, "cannot write " + target + ": " + cause);
}

} // namespace

void WriteWhole(const std::string& path, const std::vector<uint8_t>& bytes)
{
    const int descriptor = OpenDescriptor(path);
    if (descriptor >= 0) {
        if (!WriteAll(descriptor, bytes))
            throw CCliError(EXIT_BAD_USAGE, "cannot write to " + (path == "-" ? "standard output" : path) + ": " + Cause());
        return;
    }
    struct stat link;
    const bool exists = lstat(path.c_str(), &link) == 0;
    if (!exists && errno != ENOENT)
        throw CCliError(EXIT_BAD_USAGE, "cannot write " + path + ": " + Cause());
    struct stat target = link;
    if (exists && S_ISLNK(link.st_mode) && stat(path.c_str(), &target) != 0) {
        if (errno != ENOENT)
            throw CCliError(EXIT_BAD_USAGE, "cannot write " + path + ": " + Cause());
        throw CCliError(EXIT_BAD_USAGE, "cannot write " + path + ": it is a symbolic link to nothing");
    }
    if (exists && !S_ISREG(target.st_mode)) {
        // A device, a FIFO, a socket: written to, never replaced.
        const int fd = open(path.c_str(), O_WRONLY | O_CLOEXEC);
        if (fd < 0)
            throw CCliError(EXIT_BAD_USAGE, "cannot write " + path + ": " + Cause());
        const bool ok = WriteAll(fd, bytes);
        const std::string cause = Cause();
        if (close(fd) != 0 || !ok)
            throw CCliError(EXIT_BAD_USAGE, "cannot write " + path + ": " + (ok ? Cause() : cause));
        return;
    }
    // A symbolic link is written through: its target is replaced, the link stays.
    std::string file = path;
    if (exists && S_ISLNK(link.st_mode)) {
        char* resolved = realpath(path.c_str(), nullptr);
        if (resolved == nullptr)
            throw CCliError(EXIT_BAD_USAGE, "cannot write " + path + ": " + Cause());
        file = resolved;
        std::free(resolved);
    }
    ReplaceFile(file, bytes, exists ? &target : nullptr);
}
