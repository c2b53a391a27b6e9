// The filter function called the way HDF5 calls it: malloc'ed buffers that it replaces, client
// data words, failure by returning 0, and the MERTAX_DEBUG lines.
#include "MERTAX_Filter.h"
#include "OptimalBiasDulo.h"
#include "SampleData.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <regex>
#include <vector>

namespace {

// A buffer as HDF5 hands it to a filter: malloc'ed, replaced by the filter on success.
class CChunkBuffer
{
public:
    explicit CChunkBuffer(const std::vector<uint8_t>& bytes, size_t allocated = 0)
        : m_size(std::max(allocated, bytes.size())), m_buf(std::malloc(std::max<size_t>(m_size, 1)))
    {
        if (!bytes.empty())
            std::memcpy(m_buf, bytes.data(), bytes.size());
    }
    ~CChunkBuffer() { std::free(m_buf); }
    CChunkBuffer(const CChunkBuffer&) = delete;
    CChunkBuffer& operator=(const CChunkBuffer&) = delete;

    size_t Run(unsigned flags, const std::vector<unsigned>& cd, size_t validBytes)
    {
        return H5Z_filter_dulo(flags, cd.size(), cd.data(), validBytes, &m_size, &m_buf);
    }
    std::vector<uint8_t> Bytes(size_t count) const
    {
        const uint8_t* p = static_cast<const uint8_t*>(m_buf);
        return std::vector<uint8_t>(p, p + count);
    }
    size_t m_size;
    void* m_buf;
};

std::vector<unsigned> ClientData(unsigned bufferSize, unsigned cellBytes, unsigned level)
{
    return {1, 1, bufferSize, 0, cellBytes, level};
}

// The chunk compressed by the filter function; a failed compression fails the test.
std::vector<uint8_t> CompressedChunk(const std::vector<uint8_t>& raw, unsigned cellBytes, unsigned level)
{
    CChunkBuffer chunk(raw);
    const size_t length = chunk.Run(0, ClientData(0, cellBytes, level), raw.size());
    EXPECT_NE(length, 0u);
    return chunk.Bytes(length);
}

TEST(FilterCallback, ChunksRoundTripAndMatchTheCodecForEveryCellSize)
{
    for (unsigned cellBytes : {1u, 2u, 4u, 8u}) {
        for (unsigned level : {0u, 4u, 8u, 9u}) {
            SCOPED_TRACE(testing::Message() << "cellBytes " << cellBytes << " level " << level);
            const std::vector<uint8_t> raw = MakeShapeBytes(EShape::LOW_COUNTS, cellBytes, 5000 / cellBytes * 3);

            CChunkBuffer chunk(raw);
            const size_t length = chunk.Run(0, ClientData(0, cellBytes, level), raw.size());
            ASSERT_NE(length, 0u);

            // Word-size reduction is on for 16-bit cells only.
            COptimalBiasDulo codec;
            if (cellBytes == 2)
                codec.SetReduceWordSize();
            codec.SetCompressLevel(level);
            std::vector<uint8_t> input = raw;
            std::vector<uint8_t> expected(codec.GetWorstCaseCmpBufSize(cellBytes, raw.size()));
            expected.resize(codec.Compress(input.data(), input.size(), cellBytes, expected.data(), expected.size()));
            EXPECT_EQ(chunk.m_size, codec.GetWorstCaseCmpBufSize(cellBytes, raw.size()));
            ASSERT_EQ(chunk.Bytes(length), expected);

            EXPECT_EQ(chunk.Run(H5Z_FLAG_REVERSE, ClientData(unsigned(raw.size()), cellBytes, level), length),
                      raw.size());
            EXPECT_EQ(chunk.m_size, raw.size());
            EXPECT_EQ(chunk.Bytes(raw.size()), raw);
        }
    }
}

TEST(FilterCallback, SixteenBitChunkOf4096BytesReportsTheWorstCaseAsBufferSize)
{
    const std::vector<uint8_t> raw = MakeShapeBytes(EShape::NEAR_LEVEL, 2, 2048);
    CChunkBuffer chunk(raw);
    const size_t length = chunk.Run(0, ClientData(4096, 2, 4), raw.size());
    EXPECT_GT(length, 0u);
    EXPECT_LT(length, 4096u);
    EXPECT_EQ(chunk.m_size, 4104u);
}

TEST(FilterCallback, ExpansionMustGiveExactlyTheExpectedSize)
{
    // Eight segments: a bufferSize that ends at a segment boundary must not pass for the chunk.
    const std::vector<uint8_t> raw = MakeShapeBytes(EShape::LOW_COUNTS, 4, 8192);
    const std::vector<uint8_t> compressed = CompressedChunk(raw, 4, 4);
    struct Case
    {
        const char* what;
        unsigned bufferSize; // in the client data
        size_t allocated;    // HDF5's buffer size
        size_t extra;        // zero bytes after the stream
        const char* reason;  // of the failure, or null for a chunk that expands
    } cases[] = {
        {"exact bufferSize", 32768, 0, 0, nullptr},
        {"bufferSize one byte more", 32769, 0, 0, "the data expands to 32768 bytes, not 32769"},
        {"bufferSize one byte less", 32767, 0, 0, "the data expands to 32768 bytes, not 32767"},
        {"bufferSize half the chunk", 16384, 0, 0, "the data expands to 32768 bytes, not 16384"},
        {"bufferSize 0, HDF5 buffer of the chunk size", 0, 32768, 0, nullptr},
        {"bufferSize 0, larger HDF5 buffer", 0, 40000, 0, "the data expands to 32768 bytes, not 40000"},
        {"bytes after the stream", 32768, 0, 8, "segment 8 at byte offset"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        std::vector<uint8_t> stored = compressed;
        stored.resize(stored.size() + c.extra);
        CChunkBuffer chunk(stored, c.allocated);
        const void* before = chunk.m_buf;
        const size_t sizeBefore = chunk.m_size;
        CCapturedStream out(std::cout);
        CCapturedStream err(std::cerr);
        const size_t result = chunk.Run(H5Z_FLAG_REVERSE, ClientData(c.bufferSize, 4, 4), stored.size());
        EXPECT_EQ(out.Text(), "");
        if (c.reason == nullptr) {
            EXPECT_EQ(result, 32768u);
            EXPECT_EQ(chunk.Bytes(32768), raw);
        } else {
            EXPECT_EQ(result, 0u);
            EXPECT_EQ(chunk.m_buf, before);
            EXPECT_EQ(chunk.m_size, sizeBefore);
            EXPECT_EQ(chunk.Bytes(stored.size()), stored);
            EXPECT_EQ(err.Text().rfind("MERTAX cannot expand the chunk: ", 0), 0u) << err.Text();
            EXPECT_NE(err.Text().find(c.reason), std::string::npos) << err.Text();
        }
    }
}

TEST(FilterCallback, ChunksPastTheOldCapOf64MiBCompressWhenIncompressible)
{
    // Random bytes store raw: the compressed form is larger than the chunk.
    std::vector<uint8_t> raw(80u << 20);
    uint64_t state = 1;
    for (uint8_t& b : raw) {
        state = state * 6364136223846793005ull + 1442695040888963407ull;
        b = uint8_t(state >> 56);
    }
    CChunkBuffer chunk(raw);
    CCapturedStream err(std::cerr);
    const size_t length = chunk.Run(0, ClientData(0, 8, 4), raw.size());
    ASSERT_GT(length, raw.size()) << err.Text();
    EXPECT_EQ(chunk.m_size, COptimalBiasDulo().GetWorstCaseCmpBufSize(8, raw.size()));
    const std::vector<uint8_t> stored = chunk.Bytes(length);
    CChunkBuffer back(stored);
    ASSERT_EQ(back.Run(H5Z_FLAG_REVERSE, ClientData(unsigned(raw.size()), 8, 4), length), raw.size());
    EXPECT_TRUE(back.Bytes(raw.size()) == raw);
}

TEST(FilterCallback, NothingToExpandIntoFailsWithoutTouchingTheBuffer)
{
    // A buffer size of 0, or no client data at all (nothing then is known of the chunk).
    for (const std::vector<unsigned>& cd : {ClientData(0, 2, 4), std::vector<unsigned>()}) {
        CChunkBuffer chunk({});
        chunk.m_size = 0;
        const void* before = chunk.m_buf;
        CCapturedStream err(std::cerr);
        EXPECT_EQ(chunk.Run(H5Z_FLAG_REVERSE, cd, 0), 0u);
        EXPECT_EQ(chunk.m_buf, before);
        EXPECT_EQ(err.Text(), "MERTAX filter has no size to expand the chunk to\n") << cd.size() << " words";
    }
}

TEST(FilterCallback, CompressionFailureLeavesTheChunkAndSaysSo)
{
    const std::vector<uint8_t> raw = MakeShapeBytes(EShape::LOW_COUNTS, 1, 999);
    struct Case
    {
        const char* what;
        std::vector<unsigned> cd;
        const char* reason; // on HDF5's error stack
    } cases[] = {
        {"cell size 3", ClientData(999, 3, 4), "cellBytes must be 1, 2, 4 or 8, not 3"},
        {"cell size 2 for an odd byte count", ClientData(999, 2, 4),
         "a chunk of 999 bytes is not a whole number of 2-byte cells"},
        {"no client data", {}, "cellBytes must be 1, 2, 4 or 8, not 0"},
        {"another encode version", {1, 2, 999, 0, 1, 4}, "cellBytes must be 1, 2, 4 or 8, not 0"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        H5Eclear2(H5E_DEFAULT);
        CChunkBuffer chunk(raw);
        const void* before = chunk.m_buf;
        CCapturedStream err(std::cerr);
        EXPECT_EQ(chunk.Run(0, c.cd, raw.size()), 0u);
        EXPECT_EQ(chunk.m_buf, before);
        EXPECT_EQ(chunk.m_size, raw.size());
        EXPECT_EQ(chunk.Bytes(raw.size()), raw);
        const std::string text = err.Text();
        const std::string last = "Error: MERTAX compress unsuccessful \n";
        ASSERT_GE(text.size(), last.size());
        EXPECT_EQ(text.substr(text.size() - last.size()), last);
        std::string stack;
        H5Ewalk2(
            H5E_DEFAULT, H5E_WALK_UPWARD,
            [](unsigned, const H5E_error2_t* e, void* p) -> herr_t {
                char minor[64] = {};
                H5Eget_msg(e->min_num, nullptr, minor, sizeof minor);
                *static_cast<std::string*>(p) += std::string(e->desc != nullptr ? e->desc : "") + " [" + minor + "]";
                return 0;
            },
            &stack);
        EXPECT_EQ(stack, std::string("MERTAX compress unsuccessful: ") + c.reason + " [Filter operation failed]");
    }
}

TEST(FilterCallback, ClientDataBeyondSixWordsIsIgnored)
{
    const std::vector<uint8_t> raw = MakeShapeBytes(EShape::LOW_COUNTS, 2, 3000);
    CChunkBuffer chunk(raw);
    const std::vector<unsigned> cd = {1, 1, 6000, 0, 2, 4, 77, 88, 99};
    const size_t length = chunk.Run(0, cd, raw.size());
    ASSERT_NE(length, 0u);
    EXPECT_EQ(chunk.Run(H5Z_FLAG_REVERSE, cd, length), raw.size());
    EXPECT_EQ(chunk.Bytes(raw.size()), raw);
}

TEST(FilterCallback, DebugLinesFollowMertaxDebug)
{
    const std::vector<uint8_t> raw16 = MakeShapeBytes(EShape::LOW_COUNTS, 2, 3000);
    const std::vector<uint8_t> raw8 = MakeShapeBytes(EShape::LOW_COUNTS, 1, 3000);
    const std::vector<uint8_t> compressed = CompressedChunk(raw16, 2, 4);
    struct Case
    {
        const char* value;
        bool on;
    } cases[] = {{nullptr, false}, {"", false}, {"0", false}, {"no", false}, {"1", true}, {"y", true}, {"Yes", true}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.value ? c.value : "unset");
        SetEnvironment("MERTAX_DEBUG", c.value);

        CChunkBuffer reading(compressed);
        CCapturedStream readOut(std::cout);
        const void* address = reading.m_buf;
        ASSERT_EQ(reading.Run(H5Z_FLAG_REVERSE, ClientData(6000, 2, 4), compressed.size()), 6000u);
        std::ostringstream expected;
        expected << "MERTAX reading data at: " << address << " compressed bytes: " << compressed.size() << "\n"
                 << "MERTAX expanded to 6000 bytes\n";
        EXPECT_EQ(readOut.Text(), c.on ? expected.str() : "");

        CChunkBuffer writing16(raw16);
        CCapturedStream writeOut(std::cout);
        ASSERT_NE(writing16.Run(0, ClientData(6000, 2, 4), raw16.size()), 0u);
        EXPECT_EQ(writeOut.Text(), c.on ? "MERTAX compress filter will ReduceWordSize \n" : "");

        // 8-bit data never takes word-size reduction, so it never says so.
        CChunkBuffer writing8(raw8);
        CCapturedStream write8Out(std::cout);
        ASSERT_NE(writing8.Run(0, ClientData(3000, 1, 9), raw8.size()), 0u);
        EXPECT_EQ(write8Out.Text(), "");
    }
    SetEnvironment("MERTAX_DEBUG", nullptr);
}

TEST(FilterCallback, CanApplyAcceptsEveryDatatype)
{
    EXPECT_EQ(H5Z_dulo_can_apply_filter_cb(H5P_DEFAULT, H5T_NATIVE_FLOAT, H5S_ALL), 1);
    EXPECT_EQ(H5Z_dulo_can_apply_filter_cb(H5P_DEFAULT, H5T_NATIVE_UINT16, H5S_ALL), 1);
}

} // namespace
