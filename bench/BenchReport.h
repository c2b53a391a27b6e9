// Shared by the comparison benchmarks: timing, medians, the machine line, and a table printed
// both as Markdown (standard output) and as CSV (a file).
#pragma once

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#ifndef MERTAX_BENCH_FLAGS
#define MERTAX_BENCH_FLAGS "?"
#endif

inline double Median(std::vector<double> v)
{
    std::sort(v.begin(), v.end());
    return v.empty() ? 0.0 : v[v.size() / 2];
}

template <typename F>
double SecondsOf(F&& work)
{
    const auto start = std::chrono::steady_clock::now();
    work();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

inline std::string MachineLine()
{
    std::ifstream cpuinfo("/proc/cpuinfo");
    std::string line, cpu = "unknown CPU";
    while (std::getline(cpuinfo, line))
        if (line.rfind("model name", 0) == 0) {
            cpu = line.substr(line.find(':') + 2);
            break;
        }
    return cpu + ", g++ " + __VERSION__ + ", " + MERTAX_BENCH_FLAGS;
}

inline std::string Fixed(double value, int decimals)
{
    char text[32];
    std::snprintf(text, sizeof text, "%.*f", decimals, value);
    return text;
}

// Rows of text cells; the first row is the header.
class CReportTable
{
public:
    explicit CReportTable(std::vector<std::string> header) { m_rows.push_back(std::move(header)); }
    void Add(std::vector<std::string> row) { m_rows.push_back(std::move(row)); }

    void PrintMarkdown() const
    {
        for (size_t r = 0; r < m_rows.size(); ++r) {
            std::string line = "|";
            for (const std::string& cell : m_rows[r])
                line += " " + cell + " |";
            std::printf("%s\n", line.c_str());
            if (r == 0) {
                std::string rule = "|---|---|";
                for (size_t c = 2; c < m_rows[0].size(); ++c)
                    rule += "---:|";
                std::printf("%s\n", rule.c_str());
            }
        }
    }
    bool WriteCsv(const std::string& path) const
    {
        std::ofstream out(path);
        for (const auto& row : m_rows) {
            for (size_t c = 0; c < row.size(); ++c)
                out << (c ? "," : "") << row[c];
            out << "\n";
        }
        return bool(out);
    }

private:
    std::vector<std::vector<std::string>> m_rows;
};


struct SBenchOptions
{
    bool quick = false;
    std::string csvPath;
};

// Reads [--quick] [--csv FILE] from argv[first] on.
inline SBenchOptions ParseBenchOptions(int argc, char** argv, int first)
{
    SBenchOptions options;
    for (int i = first; i < argc; ++i) {
        if (std::strcmp(argv[i], "--quick") == 0)
            options.quick = true;
        else if (std::strcmp(argv[i], "--csv") == 0 && i + 1 < argc)
            options.csvPath = argv[++i];
    }
    return options;
}

// One row: the ratio, and both directions as MB/s of uncompressed bytes from the median times.
inline void AddMeasuredRow(CReportTable& table, const std::string& dataSet, const std::string& method, double rawBytes,
                           double storedBytes, const std::vector<double>& forwardSeconds,
                           const std::vector<double>& backwardSeconds)
{
    table.Add({dataSet, method, Fixed(rawBytes / storedBytes, 2), Fixed(rawBytes / Median(forwardSeconds) / 1e6, 0),
               Fixed(rawBytes / Median(backwardSeconds) / 1e6, 0)});
}

// Prints the table as Markdown and writes it as CSV when a path is given; the exit code.
inline int PublishTable(const CReportTable& table, const std::string& csvPath)
{
    table.PrintMarkdown();
    if (!csvPath.empty() && !table.WriteCsv(csvPath)) {
        std::fprintf(stderr, "cannot write %s\n", csvPath.c_str());
        return 1;
    }
    return 0;
}

// Runs runOnce(m) for every method m, `repetitions` rounds, interleaved so that the machine's
// slow spells spread over all methods; false, with a message, as soon as one fails or changes
// the data.
template <typename Method, typename Run>
bool RunInterleaved(int repetitions, const std::vector<Method>& methods, const char* dataSet, Run&& runOnce)
{
    for (int rep = 0; rep < repetitions; ++rep)
        for (size_t m = 0; m < methods.size(); ++m)
            if (!runOnce(m)) {
                std::fprintf(stderr, "%s failed or changed %s\n", methods[m].name.c_str(), dataSet);
                return false;
            }
    return true;
}
