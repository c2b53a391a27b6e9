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
// Writes `bytes` to a file (through a temporary beside it, renamed at the end, so that a failure
// leaves nothing partial), or to standard output for "-".
void WriteWhole(const std::string& path, const std::vector<uint8_t>& bytes);

bool IsCellSize(size_t cellBytes);
