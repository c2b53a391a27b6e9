// Runs a fuzz target over files and folders of saved inputs, without libFuzzer: the ordinary test
// run replays the corpora this way. Targets built on the codec core replay every input once per
// kernel set that the processor runs.
#ifdef MERTAX_REPLAY_EVERY_KERNEL_SET
#include "KernelDispatch.h"
#endif

#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

void Replay(const std::filesystem::path& file)
{
    std::ifstream in(file, std::ios::binary);
    const std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
}

size_t ReplayAll(int argc, char** argv)
{
    size_t count = 0;
    for (int i = 1; i < argc; ++i) {
        const std::filesystem::path path = argv[i];
        if (std::filesystem::is_directory(path)) {
            for (const auto& entry : std::filesystem::directory_iterator(path))
                if (entry.is_regular_file()) {
                    Replay(entry.path());
                    ++count;
                }
        } else {
            Replay(path);
            ++count;
        }
    }
    return count;
}

} // namespace

int main(int argc, char** argv)
{
#ifdef MERTAX_REPLAY_EVERY_KERNEL_SET
    size_t count = 0;
    for (EKernelSet set : SupportedKernelSets()) {
        UseKernelSet(set);
        count = ReplayAll(argc, argv);
        std::printf("replayed %zu inputs with the %s kernels\n", count, KernelsOf(set).name);
    }
#else
    const size_t count = ReplayAll(argc, argv);
    std::printf("replayed %zu inputs\n", count);
#endif
    return count == 0 ? 1 : 0;
}
