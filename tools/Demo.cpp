// The demo: realistic detector data written into an HDF5 file through the MERTAX plugin and
// through HDF5's built-in gzip, read back, verified, and timed. HDF5 loads the plugin from
// HDF5_PLUGIN_PATH, exactly as in users' programs; this program does not link it.
//
//   HDF5_PLUGIN_PATH=<folder of libmertax.so> mertax_demo <output.h5>
#include "SampleData.h"
#include "mertax.h"

#include <hdf5.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

namespace {

constexpr unsigned TOF_SINOGRAM_LEVEL = 0; // the codec's preset for TOF sinograms
constexpr unsigned SINGLES_LEVEL = 9;      // and for singles counts
constexpr unsigned GZIP_LEVEL = 4;         // h5py's default
constexpr int REPETITIONS = 3;

struct SDataset
{
    std::string name;
    const char* description;
    EDataSet set;
    hid_t type;
    std::vector<hsize_t> dims;
    std::vector<hsize_t> chunk;
    unsigned level;
    std::vector<uint8_t> bytes;
};

struct SFilter
{
    const char* suffix;
    std::function<std::string(const SDataset&)> label;
    std::function<void(hid_t dcpl, const SDataset&)> apply;
};

struct SResult
{
    double writeSeconds = 1e30;
    double readSeconds = 1e30;
    hsize_t storedBytes = 0;
};

double Seconds(std::chrono::steady_clock::time_point start)
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

[[noreturn]] void Fail(const std::string& what)
{
    std::fprintf(stderr, "mertax_demo: %s\n", what.c_str());
    std::exit(1);
}

// Creates, writes and closes one dataset; returns the seconds taken, the flush of the last chunks
// included.
double WriteDataset(hid_t file, const std::string& name, const SDataset& d, const SFilter& filter)
{
    const auto start = std::chrono::steady_clock::now();
    const hid_t space = H5Screate_simple(int(d.dims.size()), d.dims.data(), nullptr);
    const hid_t dcpl = H5Pcreate(H5P_DATASET_CREATE);
    H5Pset_chunk(dcpl, int(d.chunk.size()), d.chunk.data());
    filter.apply(dcpl, d);
    const hid_t dataset = H5Dcreate2(file, name.c_str(), d.type, space, H5P_DEFAULT, dcpl, H5P_DEFAULT);
    if (dataset < 0 || H5Dwrite(dataset, d.type, H5S_ALL, H5S_ALL, H5P_DEFAULT, d.bytes.data()) < 0 ||
        H5Dclose(dataset) < 0)
        Fail("writing " + name + " failed");
    H5Pclose(dcpl);
    H5Sclose(space);
    return Seconds(start);
}

double ReadAndVerify(hid_t file, const std::string& name, const SDataset& d, std::vector<uint8_t>& scratch,
                     hsize_t& storedBytes)
{
    std::fill(scratch.begin(), scratch.end(), 0);
    const auto start = std::chrono::steady_clock::now();
    const hid_t dataset = H5Dopen2(file, name.c_str(), H5P_DEFAULT);
    if (dataset < 0 || H5Dread(dataset, d.type, H5S_ALL, H5S_ALL, H5P_DEFAULT, scratch.data()) < 0)
        Fail("reading " + name + " failed");
    const double seconds = Seconds(start);
    storedBytes = H5Dget_storage_size(dataset);
    H5Dclose(dataset);
    if (std::memcmp(scratch.data(), d.bytes.data(), d.bytes.size()) != 0)
        Fail(name + " read back differs from what was written");
    return seconds;
}

std::string Shape(const std::vector<hsize_t>& dims)
{
    std::string text;
    for (hsize_t n : dims)
        text += (text.empty() ? "" : "x") + std::to_string(n);
    return text;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 2) {
        std::fprintf(stderr, "usage: HDF5_PLUGIN_PATH=<folder of libmertax.so> %s <output.h5>\n", argv[0]);
        return 2;
    }
    const std::string path = argv[1];
    if (H5Zfilter_avail(ZV_H5_MERTAX_FILTER_ID) <= 0)
        Fail("HDF5 cannot find filter 32910: set HDF5_PLUGIN_PATH to the folder that holds libmertax.so");

    const double MiB = 1024.0 * 1024.0;
    std::vector<SDataset> datasets = {
        {"tof_sinogram", "low-count TOF sinogram, u16", EDataSet::TOF_SINOGRAM, H5T_NATIVE_UINT16,
         {32, 256, 4096}, {1, 128, 4096}, TOF_SINOGRAM_LEVEL, {}},
        {"singles", "singles counts, u32", EDataSet::SINGLES, H5T_NATIVE_UINT32,
         {4096, 1024}, {256, 1024}, SINGLES_LEVEL, {}},
    };
    for (SDataset& d : datasets) {
        size_t cells = 1;
        for (hsize_t n : d.dims)
            cells *= n;
        d.bytes = MakeDataSet(d.set, cells * H5Tget_size(d.type)).bytes;
    }

    const std::vector<SFilter> filters = {
        {"", [](const SDataset& d) { return "mertax level " + std::to_string(d.level); },
         [](hid_t dcpl, const SDataset& d) {
             const unsigned cd[] = {1, 1, 0, 0, unsigned(H5Tget_size(d.type)), d.level};
             H5Pset_filter(dcpl, ZV_H5_MERTAX_FILTER_ID, H5Z_FLAG_MANDATORY, 6, cd);
         }},
        {"_gzip", [](const SDataset&) { return "gzip level " + std::to_string(GZIP_LEVEL); },
         [](hid_t dcpl, const SDataset&) { H5Pset_deflate(dcpl, GZIP_LEVEL); }},
    };

    // Each repetition writes a fresh file and reads it back; the best time of each step counts.
    std::vector<SResult> results(datasets.size() * filters.size());
    size_t largest = 0;
    for (const SDataset& d : datasets)
        largest = std::max(largest, d.bytes.size());
    std::vector<uint8_t> scratch(largest);
    for (int rep = 0; rep < REPETITIONS; ++rep) {
        const hid_t file = H5Fcreate(path.c_str(), H5F_ACC_TRUNC, H5P_DEFAULT, H5P_DEFAULT);
        if (file < 0)
            Fail("cannot create " + path);
        for (size_t i = 0; i < datasets.size(); ++i)
            for (size_t f = 0; f < filters.size(); ++f) {
                SResult& r = results[i * filters.size() + f];
                r.writeSeconds = std::min(r.writeSeconds,
                                          WriteDataset(file, datasets[i].name + filters[f].suffix, datasets[i], filters[f]));
            }
        H5Fclose(file);

        const hid_t reopened = H5Fopen(path.c_str(), H5F_ACC_RDONLY, H5P_DEFAULT);
        for (size_t i = 0; i < datasets.size(); ++i)
            for (size_t f = 0; f < filters.size(); ++f) {
                SResult& r = results[i * filters.size() + f];
                const SDataset& d = datasets[i];
                r.readSeconds = std::min(r.readSeconds, ReadAndVerify(reopened, d.name + filters[f].suffix, d,
                                                                      scratch, r.storedBytes));
            }
        H5Fclose(reopened);
    }

    std::printf("Detector data written to HDF5 and read back, best of %d runs:\n", REPETITIONS);
    for (const SDataset& d : datasets)
        std::printf("  /%s: %s, %s, chunks of %s (1 MiB)\n", d.name.c_str(), d.description, Shape(d.dims).c_str(),
                    Shape(d.chunk).c_str());
    std::printf("\n| dataset | filter | raw MiB | stored MiB | ratio | write MB/s | read MB/s |\n");
    std::printf("|---|---|---:|---:|---:|---:|---:|\n");
    for (size_t i = 0; i < datasets.size(); ++i) {
        const SDataset& d = datasets[i];
        for (size_t f = 0; f < filters.size(); ++f) {
            const SResult& r = results[i * filters.size() + f];
            const double raw = double(d.bytes.size());
            std::printf("| /%s | %s | %.1f | %.1f | %.2f | %.0f | %.0f |\n", (d.name + filters[f].suffix).c_str(),
                        filters[f].label(d).c_str(), raw / MiB, double(r.storedBytes) / MiB,
                        raw / double(r.storedBytes), raw / r.writeSeconds / 1e6, raw / r.readSeconds / 1e6);
        }
    }
    const char* pluginPath = std::getenv("HDF5_PLUGIN_PATH");
    std::printf("\nEvery dataset read back identical to what was written.\n");
    std::printf("File: %s\n", path.c_str());
    // Reading data is what proves that HDF5 finds the plugin: without it h5dump prints no values.
    std::printf("Read a corner of it: HDF5_PLUGIN_PATH=%s h5dump -d /singles -c 2,4 %s\n", pluginPath ? pluginPath : "",
                path.c_str());
    return 0;
}
