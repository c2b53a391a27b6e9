// Expansion of arbitrary bytes, through both forms of Decompress and every inflate word size.
// Output buffers are allocated at their exact size so that the sanitizers see any overrun.
#include "FuzzInput.h"
#include "OptimalBiasDulo.h"

#include <iostream>
#include <memory>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    CFuzzInput input(data, size);
    static const size_t WORD_SIZES[] = {1, 2, 4, 8};
    const size_t wordSize = WORD_SIZES[input.Take(1) & 3];
    const size_t outSize = input.Take(2) * 4 + input.Take(1) % 4;
    // Exactly the remaining bytes, so that reads past the end are caught.
    std::unique_ptr<uint8_t[]> compressed(new uint8_t[input.RestSize()]);
    std::copy(input.Rest(), input.Rest() + input.RestSize(), compressed.get());
    std::unique_ptr<uint8_t[]> out(new uint8_t[outSize]);

    std::cout.setstate(std::ios::failbit); // the codec's corruption messages are expected here
    COptimalBiasDulo codec;
    codec.SetInflateWordSize(wordSize);
    const size_t written = codec.Decompress(compressed.get(), input.RestSize(), out.get(), outSize);
    FUZZ_CHECK(written <= outSize);

    size_t consumed = 0;
    const size_t partial = codec.Decompress(compressed.get(), input.RestSize(), out.get(), outSize, &consumed);
    FUZZ_CHECK(partial <= outSize);
    FUZZ_CHECK(consumed <= input.RestSize());
    std::cout.clear();
    return 0;
}
