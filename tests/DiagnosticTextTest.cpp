// The codec's diagnostic text, byte for byte: expansion traces and hex dumps by debug level, the
// encoder's mask lines and dumps, and the level logic's lines (raw characters for byte cells).
// Each case runs on a fresh codec object; printed pointers are compared by what they point at.
#include "CodecTestPeer.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

#include <functional>

namespace {

using Bytes = std::vector<uint8_t>;

const Bytes FOUR_BYTES = {0x92, 0x00, 0x60, 0x00, 0x04, 0x00, 0x12, 0x30, 0x86, 0x81, 0x00, 0x00};

// `bytes` raw bytes that all match bias 0 (at most 31): the dump of 20 is two rows, of 16 one.
Bytes MatchingBytes(uint16_t bytes)
{
    SegmentFields f;
    f.segSize = bytes;
    f.map = {uint8_t(0x80 | 2 * bytes)};
    return BuildCompressedSegment(f);
}

// Expands `cmp` into `capacity` bytes at `debug` and `wordSize` (0: the codec's default); `out`
// receives the output.
std::function<void(COptimalBiasDulo&, Bytes&)> Expansion(Bytes cmp, unsigned debug, size_t wordSize,
                                                          size_t capacity, int times = 1)
{
    return [=](COptimalBiasDulo& codec, Bytes& out) {
        out.resize(capacity);
        if (wordSize != 0)
            codec.SetInflateWordSize(wordSize);
        for (int i = 0; i < times; ++i) {
            codec.SetDebugLevel(debug);
            codec.Decompress(cmp.data(), cmp.size(), out.data(), out.size());
        }
    };
}

template <typename T>
std::function<void(COptimalBiasDulo&, Bytes&)> Encoding(std::vector<T> cells, unsigned debug, T bias)
{
    return [=](COptimalBiasDulo& codec, Bytes& out) mutable {
        codec.SetDebugLevel(debug);
        out = COptimalBiasDuloTestPeer::Deflate<T>(codec, cells, 0, bias);
    };
}

const std::string TRACE2 = "DecmpSeg: LW.mode: 0 desired wsize: 2\n";
// The dump of the n-th 4-byte segment: the first at the output's start, the next further on.
std::string Dump4(const char* where) { return std::string("\nDecompressed Data(4 bytes at address=") + where + ")\n00: 12 12 13 12\n\n"; }
const std::string WIDEN8 = "DecmpSeg: expand to short - outBytes: 8\n";
const std::string ROWS20 = "00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00\n10: 00 00 00 00\n\n";
const std::string HEAD20 = "DecmpSeg: LW.mode: 0 desired wsize: 0\n\nDecompressed Data(20 bytes at address=OUT)\n";

TEST(DiagnosticText, EveryLineAndDumpByteForByte)
{
    Bytes emptyWidened = {0x02, 0x01, 0x60, 0x00, 0x00, 0x00, 0x50, 0x57, 0x88, 0x44, 0x28, 0x00};
    struct Case
    {
        const char* name;
        char fill; // the fill character earlier output left on the stream
        std::function<void(COptimalBiasDulo&, Bytes&)> run;
        std::string expected;
        unsigned levelAfter;
    } cases[] = {
        {"expansion at 12 traces and dumps each segment until the level falls to 10", '0',
         Expansion(Concat({FOUR_BYTES, FOUR_BYTES, FOUR_BYTES}), 12, 2, 24),
         TRACE2 + Dump4("OUT") + WIDEN8 + TRACE2 + Dump4("ADDR") + WIDEN8 + TRACE2 + WIDEN8, 10},
        {"the dump names the output without widening", '0', Expansion(FOUR_BYTES, 11, 0, 16),
         "DecmpSeg: LW.mode: 0 desired wsize: 0\n" + Dump4("OUT"), 10},
        {"widening traces even an empty segment", ' ', Expansion(emptyWidened, 2, 2, 16),
         TRACE2 + "DecmpSeg: expand to short - outBytes: 0\nError: deDULO returned: 0 after decompress: 0 bytes\n", 2},
        {"the first dump row is padded with the stream's fill, later ones with 0", ' ',
         Expansion(MatchingBytes(20), 11, 0, 20, 2), HEAD20 + " 0: " + ROWS20 + HEAD20 + "00: " + ROWS20, 10},
        {"a dump of whole rows ends with its last row", '0', Expansion(MatchingBytes(16), 11, 0, 16),
         "DecmpSeg: LW.mode: 0 desired wsize: 0\n\nDecompressed Data(16 bytes at address=OUT)\n00: " +
             ROWS20.substr(0, 48) + "\n",
         10},
        {"encoder masks and the stored line, no dumps below 11", ' ', Encoding<uint8_t>({0x12, 0x12, 0x13, 0x12}, 10, 0x12),
         "mask64: 0xf0f0f0f0f0f0f0f0 maskT: 0xf0\nNO_COMP vLen: 10 segSize: 4\n", 10},
        {"encoder masks of wide cells", ' ', Encoding<uint32_t>({0x100}, 2, 0),
         "mask64: 0xfffffff0fffffff0 maskT: 0xfffffff0\nmask64: 0xffffff00ffffff00 maskT: 0xffffff00\n"
         "mask64: 0xfffff000fffff000 maskT: 0xfffff000\n",
         2},
        {"encoder dumps its input, map and output", ' ',
         Encoding<uint8_t>({0x05, 0x05, 0x05, 0x05, 0x05, 0x00, 0x07, 0x00}, 11, 0),
         "\nUncompressed Data(8 bytes at address=ADDR)\n 0: 05 05 05 05 05 00 07 00\n\n"
         "mask64: 0xf0f0f0f0f0f0f0f0 maskT: 0xf0\n\nCompressed map(3 bytes at address=ADDR)\n00: 88 02 81\n\n\n"
         "Compressed Data(12 bytes at address=OUT)\n00: 82 01 60 00 08 00 50 57 50 88 02 81\n\n",
         10},
        {"level lines print byte cells as raw characters", ' ',
         [](COptimalBiasDulo& codec, Bytes& out) {
             codec.SetCompressLevel(9);
             codec.SetDebugLevel(1);
             Bytes cells = {'a', 'a', 'q', 'a', 'a'};
             out.resize(codec.GetWorstCaseCmpBufSize(1, cells.size()));
             codec.Compress(cells.data(), cells.size(), 1, out.data(), out.size());
         },
         std::string("GetTrueMin: cur min: 0xa e: 5\nL9 FindOptBias 0x") + '\0' + " Seg 0 segmin a\n", 1},
    };
    for (const Case& c : cases) {
        COptimalBiasDulo codec;
        Bytes out;
        std::cout.fill(c.fill);
        std::string text;
        {
            CCapturedStream captured(std::cout);
            c.run(codec, out);
            text = captured.Text();
        }
        std::ostringstream address;
        address << static_cast<const void*>(out.data()) << ")";
        for (size_t at; (at = text.find(address.str())) != std::string::npos;)
            text.replace(at, address.str().size(), "OUT)");
        text = std::regex_replace(text, std::regex("0x[0-9a-f]+\\)"), "ADDR)");
        EXPECT_EQ(text, c.expected) << c.name;
        EXPECT_EQ(codec.GetDebugLevel(), c.levelAfter) << c.name;
        EXPECT_EQ(std::cout.flags() & std::ios_base::basefield, std::ios_base::dec) << c.name;
    }
}

} // namespace
