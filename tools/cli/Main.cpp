// mertax: the codec from the command line.
//   mertax compress --cell N [--level L] IN OUT    raw cells to the filter's chunk bytes
//   mertax expand --cell N IN OUT                  and back
//   mertax inspect FILE.h5 [DATASET...]            what filter 32910 did with a file's datasets
//   mertax bench FILE.h5 DATASET | --raw FILE --cell N   the user's data through every filter
// Exit status: 0 success, 1 bad data, 2 bad usage; every error is one line on standard error.
// Built without HDF5 (Windows) the tool has the raw verbs only.
#include "CliSupport.h"
#include "RawVerbs.h"
#include "mertax.h"

#include <CLI/CLI.hpp>

#include <iostream>

#ifdef MERTAX_WITH_HDF5
#include "Bench.h"
#include "FileReport.h"

#include <hdf5.h>

#include <filesystem>

namespace {

// The tool finds the plugin it was built or installed with, also outside HDF5's own plugin
// folders: in a build tree the plugin folder beside its own folder, else the installed one.
void FindOwnPlugin()
{
    std::error_code error;
    const std::filesystem::path buildTree =
        std::filesystem::read_symlink("/proc/self/exe", error).parent_path().parent_path() / "plugin";
    if (!error && std::filesystem::exists(buildTree / "libmertax.so", error))
        H5PLprepend(buildTree.c_str());
    else if (std::filesystem::exists(MERTAX_INSTALLED_PLUGIN_DIR "/libmertax.so", error))
        H5PLprepend(MERTAX_INSTALLED_PLUGIN_DIR);
}

} // namespace
#endif

int main(int argc, char** argv)
{
    CLI::App app{"mertax " + std::string(mertax_version()) +
                 ": lossless compression of arrays of unsigned integers (HDF5 filter 32910)"};
    app.require_subcommand(1);
    // On Windows CLI11 would take /name for an option: a path such as /data/run1.raw must stay a path.
    app.allow_windows_style_options(false);
    app.set_version_flag("--version", std::string(mertax_version()));

    SRawOptions raw;
    auto addRaw = [&](CLI::App* verb, bool withLevel) {
        verb->add_option("--cell", raw.cellBytes, "cell size in bytes: 1, 2, 4 or 8")
            ->required()
            ->check(CLI::IsMember({1, 2, 4, 8}));
        if (withLevel)
            verb->add_option("--level", raw.level, "compression level 0 to 9 (default 4)")->check(CLI::Range(0, 9));
        verb->add_option("IN", raw.in, "input file, - for standard input")->required();
        verb->add_option("OUT", raw.out, "output file, - for standard output")->required();
    };
    CLI::App* compress = app.add_subcommand("compress", "compress raw cells into the bytes the HDF5 filter stores");
    addRaw(compress, true);
    CLI::App* expand = app.add_subcommand("expand", "expand a compressed stream back into raw cells");
    addRaw(expand, false);

#ifdef MERTAX_WITH_HDF5
    SInspectOptions inspect;
    CLI::App* inspectVerb = app.add_subcommand("inspect", "show what filter 32910 did with an HDF5 file's datasets");
    inspectVerb->add_option("FILE", inspect.file, "HDF5 file")->required();
    inspectVerb->add_option("DATASET", inspect.datasets, "datasets to show (default: all that use the filter)");
    inspectVerb->add_flag("--chunks", inspect.chunks, "a line per chunk");
    inspectVerb->add_flag("--segments", inspect.segments, "decode the segments of every chunk");
    inspectVerb->add_flag("--json", inspect.json, "print JSON");

    SBenchOptions bench;
    std::string rawFile;
    CLI::App* benchVerb = app.add_subcommand("bench", "compare the filters on your data, through HDF5");
    benchVerb->add_option("FILE", bench.file, "HDF5 file");
    benchVerb->add_option("DATASET", bench.dataset, "dataset of FILE");
    benchVerb->add_option("--raw", rawFile, "a raw file of cells instead");
    benchVerb->add_option("--cell", bench.cellBytes, "cell size of the raw file: 1, 2, 4 or 8")
        ->check(CLI::IsMember({1, 2, 4, 8}));
    benchVerb->add_option("--repeat", bench.repetitions, "repetitions, the best counts (default 3)")
        ->check(CLI::Range(1, 100));
    benchVerb->add_option("--threads", bench.threads, "also run level 4 on N threads with direct chunk I/O")
        ->check(CLI::Range(1, 1024));
#endif

    try {
        app.parse(argc, argv);
#ifdef MERTAX_WITH_HDF5
        if (benchVerb->parsed()) {
            bench.raw = !rawFile.empty();
            if (bench.raw) {
                if (!bench.file.empty() || bench.cellBytes == 0)
                    throw CLI::ValidationError("bench --raw FILE takes --cell N and no HDF5 file");
                bench.file = rawFile;
            } else if (bench.file.empty() || bench.dataset.empty()) {
                throw CLI::ValidationError("bench takes FILE.h5 DATASET, or --raw FILE --cell N");
            }
        }
#endif
    } catch (const CLI::CallForHelp& e) {
        return app.exit(e);
    } catch (const CLI::CallForAllHelp& e) {
        return app.exit(e);
    } catch (const CLI::CallForVersion& e) {
        return app.exit(e);
    } catch (const CLI::ParseError& e) {
        std::cerr << "mertax: " << e.what() << " (see mertax --help)\n";
        return EXIT_BAD_USAGE;
    }

    try {
        if (compress->parsed())
            CompressRaw(raw);
        else if (expand->parsed())
            ExpandRaw(raw);
#ifdef MERTAX_WITH_HDF5
        else {
            FindOwnPlugin();
            return inspectVerb->parsed() ? Inspect(inspect) : Bench(bench);
        }
#endif
    } catch (const CCliError& e) {
        std::cerr << "mertax: " << e.what() << "\n";
        return e.Status();
    } catch (const std::exception& e) {
        std::cerr << "mertax: " << e.what() << "\n";
        return EXIT_BAD_DATA;
    }
    return EXIT_OK;
}
