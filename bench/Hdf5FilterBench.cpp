// Writing and reading chunked HDF5 datasets (1 MiB chunks) through our plugin and through the
// filters users would pick instead, where this machine has them: none, gzip, shuffle+gzip, szip,
// and the LZ4, Blosc, bitshuffle and Zstd plugins. A second table scales our codec over threads:
// inside the filter (MERTAX_NTHREADS, through HDF5's own pipeline as h5py writes and reads) and
// with direct chunk I/O, next to bitshuffle+LZ4 and Blosc LZ4+bitshuffle at their defaults and
// with 2 threads (OMP_NUM_THREADS, BLOSC_NTHREADS). MB/s are 10^6
// uncompressed bytes per second, median of interleaved repetitions, every read checked against
// what was written. HDF5 finds the plugins through HDF5_PLUGIN_PATH.
//
//   hdf5_filter_bench <scratch.h5> [--quick] [--csv FILE]
#include "BenchReport.h"
#include "FilterCatalog.h"
#include "ThreadedChunkIO.h"
#include "SampleData.h"

#include <hdf5.h>

#include <cstdlib>
#include <cstring>
#include <functional>
#include <thread>

namespace {

constexpr size_t CHUNK_BYTES = 1 << 20;

std::vector<SFilterChoice> FilterChoices()
{
    std::vector<SFilterChoice> choices = {{"no filter", {}, [](hid_t, size_t) {}}, MertaxChoice(4)};
    for (SFilterChoice& other : OtherFilterChoices())
        choices.push_back(std::move(other));
    return choices;
}

// A filter, through HDF5's filter pipeline (threads 0) or through threaded direct chunk I/O.
struct SMethod
{
    std::string name;
    SFilterChoice filter;
    unsigned threads = 0;
    std::string envName = ""; // set to envValue while this method runs
    std::string envValue = "";
};

// Sets the method's environment variable for the lifetime of the object.
struct CMethodEnvironment
{
    explicit CMethodEnvironment(const SMethod& m) : m_name(m.envName)
    {
        if (!m_name.empty())
            setenv(m_name.c_str(), m.envValue.c_str(), 1);
    }
    ~CMethodEnvironment()
    {
        if (!m_name.empty())
            unsetenv(m_name.c_str());
    }
    std::string m_name;
};

struct SMeasure
{
    std::vector<double> writeSeconds, readSeconds;
    hsize_t storedBytes = 0;
};

// Writes the sample as a fresh file with one dataset, reads it back; false on failure or change.
bool RunOnce(const std::string& path, const SMethod& method, const SSampleBuffer& sample,
             std::vector<uint8_t>& readBack, SMeasure& m)
{
    const hsize_t cells = sample.bytes.size() / sample.cellSize;
    const hsize_t chunk = CHUNK_BYTES / sample.cellSize;
    const hid_t type = CellType(sample.cellSize);
    bool ok = true;
    const CMethodEnvironment environment(method);
    const hid_t file = H5Fcreate(path.c_str(), H5F_ACC_TRUNC, H5P_DEFAULT, H5P_DEFAULT);
    m.writeSeconds.push_back(SecondsOf([&] {
        const hid_t space = H5Screate_simple(1, &cells, nullptr);
        const hid_t dcpl = H5Pcreate(H5P_DATASET_CREATE);
        H5Pset_chunk(dcpl, 1, &chunk);
        method.filter.apply(dcpl, sample.cellSize);
        const hid_t dataset = H5Dcreate2(file, "data", type, space, H5P_DEFAULT, dcpl, H5P_DEFAULT);
        ok = dataset >= 0 &&
             (method.threads == 0 ? H5Dwrite(dataset, type, H5S_ALL, H5S_ALL, H5P_DEFAULT, sample.bytes.data()) >= 0
                                  : CThreadedChunkIO(dataset, method.threads).Write(sample.bytes.data()));
        ok = H5Dclose(dataset) >= 0 && ok;
        H5Pclose(dcpl);
        H5Sclose(space);
        ok = H5Fclose(file) >= 0 && ok;
    }));
    const hid_t reopened = H5Fopen(path.c_str(), H5F_ACC_RDONLY, H5P_DEFAULT);
    std::fill(readBack.begin(), readBack.end(), 0);
    m.readSeconds.push_back(SecondsOf([&] {
        const hid_t dataset = H5Dopen2(reopened, "data", H5P_DEFAULT);
        ok = ok && dataset >= 0 &&
             (method.threads == 0 ? H5Dread(dataset, type, H5S_ALL, H5S_ALL, H5P_DEFAULT, readBack.data()) >= 0
                                  : CThreadedChunkIO(dataset, method.threads).Read(readBack.data()));
        m.storedBytes = H5Dget_storage_size(dataset);
        H5Dclose(dataset);
    }));
    H5Fclose(reopened);
    return ok && readBack == sample.bytes;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc < 2) {
        std::fprintf(stderr, "usage: %s <scratch.h5> [--quick] [--csv FILE]\n", argv[0]);
        return 2;
    }
    const std::string path = argv[1];
    const SBenchOptions options = ParseBenchOptions(argc, argv, 2);
    const size_t bytes = options.quick ? (4 << 20) : (32 << 20);
    const int repetitions = options.quick ? 3 : 5;

    std::vector<SMethod> methods;
    std::string missing;
    for (const SFilterChoice& f : FilterChoices())
        (Available(f) ? (methods.push_back({f.name, f}), void()) : (missing += " " + f.name + ";", void()));
    // The scaling table: our codec over 1 to all cores inside the filter and with direct chunk
    // I/O, next to the peers at their defaults and with 2 threads.
    const unsigned cores = std::max(1u, std::thread::hardware_concurrency());
    std::vector<SMethod> scaling;
    for (unsigned threads = 1; threads <= cores; ++threads)
        scaling.push_back({"mertax level 4, filter pipeline, MERTAX_NTHREADS=" + std::to_string(threads),
                           MertaxChoice(4), 0, "MERTAX_NTHREADS", std::to_string(threads)});
    for (const SMethod& m : methods) {
        const char* variable = m.name == "bitshuffle+lz4 plugin"         ? "OMP_NUM_THREADS"
                               : m.name == "blosc lz4+bitshuffle plugin" ? "BLOSC_NTHREADS"
                                                                         : nullptr;
        if (variable == nullptr)
            continue;
        scaling.push_back({m.name + ", filter pipeline, default", m.filter});
        scaling.push_back({m.name + ", filter pipeline, " + variable + "=2", m.filter, 0, variable, "2"});
    }
    for (unsigned threads = 1; threads <= cores; ++threads)
        scaling.push_back({"mertax level 4, " + std::to_string(threads) + " thread" + (threads > 1 ? "s" : "") +
                               ", direct chunk I/O",
                           MertaxChoice(4), threads});
    std::printf("Through HDF5 (%s), 1 MiB chunks, %zu MiB per data set, median of %d interleaved runs.\n%s\n",
                H5_VERS_INFO, bytes >> 20, repetitions, MachineLine().c_str());
    if (!missing.empty())
        std::printf("Not available here:%s\n", missing.c_str());
    std::printf("\n");

    CReportTable table({"data set", "filter", "ratio", "write MB/s", "read MB/s"});
    CReportTable threads({"data set", "method", "ratio", "write MB/s", "read MB/s"});
    for (EDataSet set : ALL_DATA_SETS) {
        const SSampleBuffer sample = MakeDataSet(set, bytes);
        std::vector<uint8_t> readBack(sample.bytes.size());
        const double raw = double(sample.bytes.size());
        for (auto* run : {&methods, &scaling}) {
            std::vector<SMeasure> measures(run->size());
            if (!RunInterleaved(repetitions, *run, sample.name,
                                [&](size_t m) { return RunOnce(path, (*run)[m], sample, readBack, measures[m]); }))
                return 1;
            for (size_t m = 0; m < run->size(); ++m)
                AddMeasuredRow(run == &methods ? table : threads, sample.name, (*run)[m].name, raw,
                               double(measures[m].storedBytes), measures[m].writeSeconds, measures[m].readSeconds);
        }
    }
    std::remove(path.c_str());
    const int status = PublishTable(table, options.csvPath);
    std::printf("\nThreads (%u cores here):\n\n", cores);
    return PublishTable(threads, options.csvPath.empty() ? "" : options.csvPath + ".threads.csv") | status;
}
