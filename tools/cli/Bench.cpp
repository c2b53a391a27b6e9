#include "Bench.h"

#include "CheckedExpansion.h"
#include "CliSupport.h"
#include "FilterCatalog.h"
#include "Hdf5Handle.h"
#include "Hdf5Objects.h"
#include "ThreadedChunkIO.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <iomanip>
#include <iostream>
#include <numeric>

namespace {

using Clock = std::chrono::steady_clock;
constexpr size_t RAW_CHUNK_BYTES = 1 << 20;

struct SData
{
    std::vector<uint8_t> bytes;
    std::vector<hsize_t> dims;
    std::vector<hsize_t> chunk;
    CHid type{H5I_INVALID_HID, H5Tclose};
};

SData LoadDataset(const SBenchOptions& o)
{
    if (H5Fis_hdf5(o.file.c_str()) <= 0)
        throw CCliError(EXIT_BAD_USAGE, "cannot open " + o.file + " as an HDF5 file");
    CHid file(H5Fopen(o.file.c_str(), H5F_ACC_RDONLY, H5P_DEFAULT), H5Fclose);
    if (!file.Valid() || !IsDataset(file, o.dataset))
        throw CCliError(EXIT_BAD_USAGE, "no dataset " + o.dataset + " in " + o.file);
    CHid dataset(H5Dopen2(file, o.dataset.c_str(), H5P_DEFAULT), H5Dclose);
    CHid space(H5Dget_space(dataset), H5Sclose);
    CHid dcpl(H5Dget_create_plist(dataset), H5Pclose);
    SData d;
    d.type = CHid(H5Tget_native_type(CHid(H5Dget_type(dataset), H5Tclose), H5T_DIR_ASCEND), H5Tclose);
    const size_t cellBytes = H5Tget_size(d.type);
    if (!IsCellSize(cellBytes) || H5Tget_class(d.type) == H5T_COMPOUND)
        throw CCliError(EXIT_BAD_USAGE, "dataset " + o.dataset + " does not hold cells of 1, 2, 4 or 8 bytes");
    d.dims.resize(size_t(H5Sget_simple_extent_ndims(space)));
    H5Sget_simple_extent_dims(space, d.dims.data(), nullptr);
    d.chunk.resize(d.dims.size());
    if (H5Pget_layout(dcpl) != H5D_CHUNKED || H5Pget_chunk(dcpl, int(d.chunk.size()), d.chunk.data()) < 0)
        d.chunk = d.dims; // contiguous data: one chunk
    d.bytes.resize(std::accumulate(d.dims.begin(), d.dims.end(), cellBytes, std::multiplies<size_t>()));
    if (H5Dread(dataset, d.type, H5S_ALL, H5S_ALL, H5P_DEFAULT, d.bytes.data()) < 0)
        throw CCliError(EXIT_BAD_DATA, "cannot read dataset " + o.dataset + " (is its filter available?)");
    return d;
}

SData LoadRaw(const SBenchOptions& o)
{
    SData d;
    d.bytes = ReadWhole(o.file);
    if (d.bytes.empty() || d.bytes.size() % o.cellBytes != 0)
        throw CCliError(EXIT_BAD_DATA, o.file + " is empty or not a whole number of " +
                                           std::to_string(o.cellBytes) + "-byte cells");
    d.type = CHid(H5Tcopy(CellType(o.cellBytes)), H5Tclose);
    d.dims = {d.bytes.size() / o.cellBytes};
    d.chunk = {std::min<hsize_t>(d.dims[0], RAW_CHUNK_BYTES / o.cellBytes)};
    return d;
}

struct SResult
{
    std::string name;
    double ratio = 0, writeSeconds = 1e30, readSeconds = 1e30;
    bool failed = false;
};

// Writes the data with `filter` into a fresh file and reads it back once, keeping the best times
// in `r`. False when the filter fails or the data does not come back exactly.
bool MeasureOnce(const std::string& path, const SFilterChoice& filter, unsigned threads, const SData& d, SResult& r)
{
    const auto start = Clock::now();
    {
        CHid file(H5Fcreate(path.c_str(), H5F_ACC_TRUNC, H5P_DEFAULT, H5P_DEFAULT), H5Fclose);
        CHid space(H5Screate_simple(int(d.dims.size()), d.dims.data(), nullptr), H5Sclose);
        CHid dcpl(H5Pcreate(H5P_DATASET_CREATE), H5Pclose);
        H5Pset_chunk(dcpl, int(d.chunk.size()), d.chunk.data());
        filter.apply(dcpl, H5Tget_size(d.type));
        CHid dataset(H5Dcreate2(file, "data", d.type, space, H5P_DEFAULT, dcpl, H5P_DEFAULT), H5Dclose);
        const bool written =
            dataset.Valid() &&
            (threads == 0 ? H5Dwrite(dataset, d.type, H5S_ALL, H5S_ALL, H5P_DEFAULT, d.bytes.data()) >= 0
                          : CThreadedChunkIO(dataset, threads).Write(d.bytes.data()));
        if (!written || dataset.Close() < 0 || file.Close() < 0)
            return false;
    }
    r.writeSeconds = std::min(r.writeSeconds, std::chrono::duration<double>(Clock::now() - start).count());
    std::vector<uint8_t> back(d.bytes.size());
    const auto readStart = Clock::now();
    CHid file(H5Fopen(path.c_str(), H5F_ACC_RDONLY, H5P_DEFAULT), H5Fclose);
    CHid dataset(H5Dopen2(file, "data", H5P_DEFAULT), H5Dclose);
    const bool read = threads == 0 ? H5Dread(dataset, d.type, H5S_ALL, H5S_ALL, H5P_DEFAULT, back.data()) >= 0
                                   : CThreadedChunkIO(dataset, threads).Read(back.data());
    if (!read)
        return false;
    r.readSeconds = std::min(r.readSeconds, std::chrono::duration<double>(Clock::now() - readStart).count());
    const hsize_t stored = H5Dget_storage_size(dataset);
    r.ratio = stored ? double(d.bytes.size()) / double(stored) : 0;
    return back == d.bytes;
}

double MBs(const SData& d, double seconds) { return double(d.bytes.size()) / seconds / 1e6; }

// A progress line on a terminal, once the work has taken more than a second.
class CProgress
{
public:
    CProgress() : m_terminal(isatty(STDERR_FILENO) != 0), m_start(Clock::now()) {}
    ~CProgress() { Clear(); }
    void Show(const std::string& text)
    {
        if (!m_terminal || Clock::now() - m_start < std::chrono::seconds(1))
            return;
        std::cerr << "\r\033[K" << text << std::flush;
        m_shown = true;
    }
    void Clear()
    {
        if (m_shown)
            std::cerr << "\r\033[K" << std::flush;
        m_shown = false;
    }

private:
    bool m_terminal;
    Clock::time_point m_start;
    bool m_shown = false;
};

} // namespace

int Bench(const SBenchOptions& o)
{
    H5Eset_auto2(H5E_DEFAULT, nullptr, nullptr);
    const SData d = o.raw ? LoadRaw(o) : LoadDataset(o);

    // Each choice through the filter pipeline (threads 0), and level 4 on threads when asked for.
    std::vector<std::pair<SFilterChoice, unsigned>> choices;
    for (unsigned level : {0u, 4u, 8u, 9u})
        choices.push_back({MertaxChoice(level), 0});
    if (!Available(choices.front().first))
        throw CCliError(EXIT_BAD_USAGE, "HDF5 cannot load filter 32910: set HDF5_PLUGIN_PATH to the plugin's folder");
    if (o.threads != 0)
        choices.push_back({MertaxChoice(4), o.threads});
    for (SFilterChoice& other : OtherFilterChoices())
        if (Available(other))
            choices.push_back({std::move(other), 0});

    const std::filesystem::path scratch =
        std::filesystem::temp_directory_path() / ("mertax-bench-" + std::to_string(getpid()));
    std::filesystem::create_directories(scratch);
    // Rounds interleave the filters, so that a machine that speeds up or slows down during the
    // run does not favour the filters measured at one end of it.
    std::vector<SResult> results(choices.size());
    for (size_t i = 0; i < choices.size(); ++i) {
        const auto& [filter, threads] = choices[i];
        results[i].name = threads == 0 ? filter.name
                                       : filter.name + ", " + std::to_string(threads) + " threads, direct chunk I/O";
    }
    {
        CProgress progress;
        for (int round = 0; round < o.repetitions; ++round)
            for (size_t i = 0; i < choices.size(); ++i) {
                SResult& r = results[i];
                if (r.failed)
                    continue;
                progress.Show("bench: round " + std::to_string(round + 1) + " of " + std::to_string(o.repetitions) +
                              ", " + r.name);
                if (!MeasureOnce((scratch / "scratch.h5").string(), choices[i].first, choices[i].second, d, r)) {
                    r.failed = true;
                    std::cerr << "mertax: " << r.name << " failed or did not give the data back; left out\n";
                }
            }
    }
    results.erase(std::remove_if(results.begin(), results.end(), [](const SResult& r) { return r.failed; }),
                  results.end());
    std::filesystem::remove_all(scratch);

    std::cout << d.bytes.size() << " bytes of " << H5Tget_size(d.type) * 8 << "-bit cells, chunks of "
              << std::accumulate(d.chunk.begin(), d.chunk.end(), H5Tget_size(d.type), std::multiplies<size_t>())
              << " bytes; best of " << o.repetitions << " interleaved rounds, MB/s of uncompressed data\n";
    std::cout << std::left << std::setw(54) << "filter" << std::right << std::setw(8) << "ratio" << std::setw(12)
              << "write MB/s" << std::setw(12) << "read MB/s" << "\n"
              << std::fixed << std::setprecision(2);
    for (const SResult& r : results)
        std::cout << std::left << std::setw(54) << r.name << std::right << std::setw(8) << r.ratio
                  << std::setprecision(0) << std::setw(12) << MBs(d, r.writeSeconds) << std::setw(12)
                  << MBs(d, r.readSeconds)
                  << std::setprecision(2) << "\n";
    // The best ratio among the filters that write at least half as fast as the fastest one.
    double fastest = 1e30;
    for (const SResult& r : results)
        fastest = std::min(fastest, r.writeSeconds);
    const SResult* pick = nullptr;
    for (const SResult& r : results)
        if (r.writeSeconds <= 2 * fastest && (pick == nullptr || r.ratio > pick->ratio))
            pick = &r;
    if (pick != nullptr)
        std::cout << "recommended: " << pick->name << " (ratio " << pick->ratio << ", the best among the filters "
                  << "that write at least half as fast as the fastest)\n";
    return EXIT_OK;
}
