// What every verb of the mertax tool shares: its exit statuses, the error that ends a verb with
// one line on standard error, and raw files read whole and written whole.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

enum EExitStatus
{
    EXIT_OK = 0,
    EXIT_BAD_DATA = 1,
    EXIT_BAD_USAGE = 2,
};

// Thrown by a verb; main prints "mertax: " and the message, and exits with the status.
class CCliError : public std::runtime_error
{
public:
    CCliError(int status, const std::string& message) : std::runtime_error(message), m_status(status) {}
    int Status() const { return m_status; }

private:
    int m_status;
};

// The whole of a file, or of standard input for "-".
std::vector<uint8_t> ReadWhole(const std::string& path);
// Writes `bytes` as coreutils do: a regular file (or a new one) is replaced atomically through an
// exclusively created temporary beside it, keeping its permissions, and nothing is left behind on
// failure or interruption; a symbolic link is written through to its target; a device, a FIFO,
// "-" and /dev/stdout are written to. Errors name their cause.
void WriteWhole(const std::string& path, const std::vector<uint8_t>& bytes);
