// Datasets written and read through the real HDF5 library with filter 32910 loaded as a plugin.
#include "../TestSupport.h"
#include "Hdf5Handles.h"
#include "SampleData.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <functional>
#include <numeric>

namespace {

class PluginEndToEnd : public testing::Test
{
protected:
    void SetUp() override
    {
        // Failures are expected in some tests; they are checked through return values.
        H5Eset_auto2(H5E_DEFAULT, nullptr, nullptr);
        m_path = ScratchFile("mertax_");
    }
    void TearDown() override
    {
        SetEnvironment("MERTAX_DEBUG", nullptr);
        std::remove(m_path.c_str());
    }
    std::string m_path;
};

struct SDatasetCase
{
    std::string name;
    size_t cellBytes;
    unsigned level;
    std::vector<hsize_t> dims;
    std::vector<hsize_t> chunk;
    EShape shape;
};

size_t Product(const std::vector<hsize_t>& v)
{
    return std::accumulate(v.begin(), v.end(), size_t(1), std::multiplies<size_t>());
}

std::vector<SDatasetCase> DatasetCases()
{
    std::vector<SDatasetCase> cases;
    // Edge chunks are partial in both dimensions: 45 = 2 * 16 + 13, 700 = 2 * 256 + 188.
    for (size_t cellBytes : {1, 2, 4, 8})
        for (unsigned level : {0u, 1u, 4u, 7u, 8u, 9u})
            for (EShape shape : {EShape::LOW_COUNTS, EShape::NEAR_LEVEL})
                cases.push_back({"u" + std::to_string(8 * cellBytes) + "_level" + std::to_string(level) + "_" +
                                     ShapeName(shape),
                                 cellBytes, level, {45, 700}, {16, 256}, shape});
    cases.push_back({"u16_3d", 2, 4, {6, 40, 90}, {4, 16, 64}, EShape::LOW_COUNTS});
    // 18000-byte chunks of small 16-bit values: reduced segments of 8192 bytes and a short one.
    cases.push_back({"u16_reduced", 2, 9, {100000}, {9000}, EShape::LOW_COUNTS});
    cases.push_back({"u64_random", 8, 4, {3000}, {1000}, EShape::RANDOM});
    return cases;
}

TEST_F(PluginEndToEnd, EveryCellSizeAndLevelRoundTripsThroughAFile)
{
    const std::vector<SDatasetCase> cases = DatasetCases();
    std::vector<std::vector<uint8_t>> written;
    {
        CHid file = CreateFile(m_path);
        ASSERT_TRUE(file.Valid());
        uint64_t seed = 1;
        for (const SDatasetCase& c : cases) {
            written.push_back(MakeShapeBytes(c.shape, c.cellBytes, Product(c.dims), seed++));
            CHid dataset = CreateFilteredDataset(file, c.name, c.cellBytes, c.dims, c.chunk,
                                                 {1, 1, 0, 0, unsigned(c.cellBytes), c.level});
            ASSERT_TRUE(dataset.Valid()) << c.name;
            ASSERT_GE(WriteAll(dataset, c.cellBytes, written.back()), 0) << c.name;
        }
        ASSERT_GE(file.Close(), 0);
    }

    CHid file = OpenFile(m_path);
    ASSERT_TRUE(file.Valid());
    for (size_t i = 0; i < cases.size(); ++i) {
        const SDatasetCase& c = cases[i];
        SCOPED_TRACE(c.name);
        CHid dataset = OpenDataset(file, c.name);
        EXPECT_EQ(ReadAll(dataset, c.cellBytes, written[i].size()), written[i]);

        const SStoredFilter stored = StoredFilter(dataset);
        const unsigned chunkBytes = unsigned(Product(c.chunk) * c.cellBytes);
        EXPECT_EQ(stored.cd, (std::vector<unsigned>{1, 1, chunkBytes, 0, unsigned(c.cellBytes), c.level}));
        EXPECT_EQ(stored.name, "ZORV MERTAX Compression Filter");
        if (c.shape == EShape::LOW_COUNTS) {
            EXPECT_LT(H5Dget_storage_size(dataset), written[i].size() / 2);
        }
    }
}

TEST_F(PluginEndToEnd, SetLocalFillsBufferSizeAndKeepsTheFilterFlags)
{
    CHid file = CreateFile(m_path);
    SetEnvironment("MERTAX_DEBUG", "1");
    CCapturedOutput out(stdout);
    CHid dataset = CreateFilteredDataset(file, "singles", 4, {3000}, {1000}, {1, 1, 0, 0, 4, 6}, H5Z_FLAG_OPTIONAL);
    ASSERT_TRUE(dataset.Valid());
    EXPECT_EQ(out.Text(), "MERTAX bufferSize: 4000\n"
                          "MERTAX flags: 0x00000000\n"
                          "MERTAX cellBytes: 4\n"
                          "MERTAX compressLevel: 6\n");
    const SStoredFilter stored = StoredFilter(dataset);
    EXPECT_EQ(stored.cd, (std::vector<unsigned>{1, 1, 4000, 0, 4, 6}));
    EXPECT_EQ(stored.flags, unsigned(H5Z_FLAG_OPTIONAL));
}

TEST_F(PluginEndToEnd, DatasetWithoutFilterVersionIsNotCreated)
{
    CHid file = CreateFile(m_path);
    const std::vector<unsigned> noVersion[] = {{}, {1}, {0, 1, 0, 0, 2, 4}};
    for (const std::vector<unsigned>& cd : noVersion) {
        SCOPED_TRACE(testing::Message() << cd.size() << " words");
        CCapturedOutput out(stdout);
        CHid dataset = CreateFilteredDataset(file, "d" + std::to_string(cd.size()), 2, {100}, {50}, cd);
        EXPECT_FALSE(dataset.Valid());
        EXPECT_EQ(out.Text(), "MERTAX filter version not set, updating to: 1\n");
    }
}

// The first stored chunk of a dataset, as the filter wrote it.
std::vector<uint8_t> ReadRawChunk(hid_t dataset, const hsize_t* offset)
{
    hsize_t size = 0;
    H5Dget_chunk_storage_size(dataset, offset, &size);
    std::vector<uint8_t> chunk(size);
    uint32_t filterMask = 0;
    H5Dread_chunk(dataset, H5P_DEFAULT, offset, &filterMask, chunk.data());
    return chunk;
}

TEST_F(PluginEndToEnd, DamagedChunkFailsTheReadAndTheRestStaysReadable)
{
    const size_t cells = 20000;
    const std::vector<uint8_t> data = MakeShapeBytes(EShape::LOW_COUNTS, 2, cells);
    const hsize_t first[] = {0};
    std::vector<uint8_t> good;
    {
        CHid file = CreateFile(m_path);
        CHid dataset = CreateFilteredDataset(file, "sino", 2, {cells}, {cells / 2}, {1, 1, 0, 0, 2, 4});
        ASSERT_GE(WriteAll(dataset, 2, data), 0);
        ASSERT_GE(H5Dflush(dataset), 0);
        good = ReadRawChunk(dataset, first);
        ASSERT_GT(good.size(), 64u);
    }
    // The first segment's header word gives its length and the length of its non-match stream,
    // which follows the header and value fields (at most 8 bytes here); the map ends the segment.
    const uint32_t header = uint32_t(good[0]) | uint32_t(good[1]) << 8 | uint32_t(good[2]) << 16 |
                            uint32_t(good[3]) << 24;
    const size_t segmentLength = header >> 19;
    const size_t streamMiddle = 8 + ((header >> 7) & 0xFFF) / 2;
    ASSERT_LT(streamMiddle + 16, segmentLength);
    struct Damage
    {
        const char* what;
        std::function<void(std::vector<uint8_t>&)> apply;
        bool detected; // false: the format has no checksum, the read may succeed with other data
    } damages[] = {
        {"truncated to half", [](std::vector<uint8_t>& c) { c.resize(c.size() / 2); }, true},
        {"truncated to 3 bytes", [](std::vector<uint8_t>& c) { c.resize(3); }, true},
        {"one byte missing", [](std::vector<uint8_t>& c) { c.pop_back(); }, true},
        {"segment length bits flipped", [](std::vector<uint8_t>& c) { c[3] ^= 0x80; }, true},
        {"segment size field zeroed", [](std::vector<uint8_t>& c) { c[0] &= 0xFE; c[4] = c[5] = 0; }, true},
        {"cell size bits flipped", [](std::vector<uint8_t>& c) { c[0] ^= 0x0C; }, true},
        {"all ones", [](std::vector<uint8_t>& c) { std::fill(c.begin(), c.end(), 0xFF); }, true},
        {"bit flipped in the stream", [&](std::vector<uint8_t>& c) { c[streamMiddle] ^= 0x10; }, false},
        {"bit flipped in the map", [&](std::vector<uint8_t>& c) { c[segmentLength - 6] ^= 0x04; }, false},
    };
    for (const Damage& damage : damages) {
        SCOPED_TRACE(damage.what);
        std::vector<uint8_t> bad = good;
        damage.apply(bad);
        {
            CHid file = OpenFile(m_path);
            CHid dataset = OpenDataset(file, "sino");
            ASSERT_GE(H5Dwrite_chunk(dataset, H5P_DEFAULT, 0, first, bad.size(), bad.data()), 0);
        }
        CHid file = OpenFile(m_path);
        CHid dataset = OpenDataset(file, "sino");
        const std::vector<uint8_t> read = ReadAll(dataset, 2, data.size());
        if (damage.detected)
            EXPECT_TRUE(read.empty());
        else
            EXPECT_NE(read, data);

        // The second chunk is intact and still reads.
        const hsize_t start[] = {cells / 2}, count[] = {cells / 2};
        CHid fileSpace(H5Dget_space(dataset), H5Sclose);
        H5Sselect_hyperslab(fileSpace, H5S_SELECT_SET, start, nullptr, count, nullptr);
        CHid memSpace(H5Screate_simple(1, count, nullptr), H5Sclose);
        std::vector<uint8_t> half(data.size() / 2);
        ASSERT_GE(H5Dread(dataset, H5T_NATIVE_UINT16, memSpace, fileSpace, H5P_DEFAULT, half.data()), 0);
        EXPECT_TRUE(std::equal(half.begin(), half.end(), data.begin() + data.size() / 2));
    }
}

// Collects the descriptions on HDF5's error stack whenever an API call fails, innermost first, one
// per line with its minor error's text in brackets: HDF5 calls the automatic handler at the
// failure, before later calls clear the stack.
class CErrorStackCapture
{
public:
    CErrorStackCapture() { H5Eset_auto2(H5E_DEFAULT, &CErrorStackCapture::Collect, &m_text); }
    ~CErrorStackCapture() { H5Eset_auto2(H5E_DEFAULT, nullptr, nullptr); }
    const std::string& Text() const { return m_text; }

private:
    static herr_t Collect(hid_t stack, void* pText)
    {
        return H5Ewalk2(
            stack, H5E_WALK_UPWARD,
            [](unsigned, const H5E_error2_t* e, void* p) -> herr_t {
                char minor[64] = {};
                H5Eget_msg(e->min_num, nullptr, minor, sizeof minor);
                *static_cast<std::string*>(p) += std::string(e->desc ? e->desc : "") + " [" + minor + "]\n";
                return 0;
            },
            pText);
    }
    std::string m_text;
};

TEST_F(PluginEndToEnd, UnusableClientDataIsRefusedAtCreationOnTheErrorStack)
{
    CHid file = CreateFile(m_path);
    struct Case
    {
        size_t typeBytes;
        std::vector<unsigned> cd;
        hsize_t chunk;
        const char* message;
        const char* minor; // HDF5's text for the kind of error
    } cases[] = {
        {1, {1, 1, 0, 0, 3, 4}, 999, "MERTAX filter cellBytes must be 1, 2, 4 or 8, not 3", "Bad value"},
        {4, {1, 1, 0, 0, 16, 4}, 100, "MERTAX filter cellBytes must be 1, 2, 4 or 8, not 16", "Bad value"},
        {1, {1, 1, 0, 0, 8, 4}, 999, "MERTAX filter cellBytes 8 does not divide the chunk's 999 bytes", "Bad value"},
        {2, {0, 1, 0, 0, 2, 4}, 100, "MERTAX filter version not set, updating to: 1", "Callback failed"},
    };
    int n = 0;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.message);
        CErrorStackCapture errors;
        CCapturedOutput out(stdout);
        CHid dataset = CreateFilteredDataset(file, "bad" + std::to_string(n++), c.typeBytes, {c.chunk}, {c.chunk}, c.cd);
        EXPECT_FALSE(dataset.Valid());
        EXPECT_EQ(out.Text(), std::string(c.message) + "\n");
        const std::string line = std::string(c.message) + " [" + c.minor + "]";
        EXPECT_NE(errors.Text().find(line), std::string::npos) << errors.Text();
    }
}

TEST_F(PluginEndToEnd, CellSizeZeroTakesTheDatatypeSize)
{
    CHid file = CreateFile(m_path);
    for (size_t cellBytes : {1, 2, 4, 8}) {
        SCOPED_TRACE(cellBytes);
        const std::vector<uint8_t> data = MakeShapeBytes(EShape::LOW_COUNTS, cellBytes, 3000);
        const std::string name = "u" + std::to_string(8 * cellBytes);
        CHid dataset = CreateFilteredDataset(file, name, cellBytes, {3000}, {1000}, {1, 1, 0, 0, 0, 4});
        ASSERT_TRUE(dataset.Valid());
        EXPECT_EQ(StoredFilter(dataset).cd,
                  (std::vector<unsigned>{1, 1, unsigned(1000 * cellBytes), 0, unsigned(cellBytes), 4}));
        ASSERT_GE(WriteAll(dataset, cellBytes, data), 0);
        EXPECT_EQ(ReadAll(dataset, cellBytes, data.size()), data);
    }
    CCapturedOutput out(stdout);
    CHid floats(H5Screate_simple(1, std::vector<hsize_t>{10}.data(), nullptr), H5Sclose);
    CHid dcpl(H5Pcreate(H5P_DATASET_CREATE), H5Pclose);
    const hsize_t chunk[] = {10};
    H5Pset_chunk(dcpl, 1, chunk);
    const unsigned cd[] = {1, 1, 0, 0, 0, 4};
    H5Pset_filter(dcpl, ZV_H5_MERTAX_FILTER_ID, H5Z_FLAG_MANDATORY, 6, cd);
    CHid longDoubles(H5Dcreate2(file, "ld", H5T_NATIVE_LDOUBLE, floats, H5P_DEFAULT, dcpl, H5P_DEFAULT), H5Dclose);
    EXPECT_FALSE(longDoubles.Valid());
    EXPECT_EQ(out.Text(), "MERTAX filter cellBytes must be 1, 2, 4 or 8, not 16\n");
}

TEST_F(PluginEndToEnd, DamagedChunkSaysWhereOnTheErrorStack)
{
    const std::vector<uint8_t> data = MakeShapeBytes(EShape::LOW_COUNTS, 2, 6000);
    const hsize_t first[] = {0};
    {
        CHid file = CreateFile(m_path);
        CHid dataset = CreateFilteredDataset(file, "sino", 2, {6000}, {6000}, {1, 1, 0, 0, 2, 4});
        ASSERT_GE(WriteAll(dataset, 2, data), 0);
        ASSERT_GE(H5Dflush(dataset), 0);
        std::vector<uint8_t> chunk = ReadRawChunk(dataset, first);
        chunk.resize(chunk.size() - 4);
        ASSERT_GE(H5Dwrite_chunk(dataset, H5P_DEFAULT, 0, first, chunk.size(), chunk.data()), 0);
    }
    CHid file = OpenFile(m_path);
    CHid dataset = OpenDataset(file, "sino");
    CErrorStackCapture errors;
    CCapturedOutput err(stderr);
    EXPECT_TRUE(ReadAll(dataset, 2, data.size()).empty());
    // HDF5 1.14 and later may silence what a filter function puts on the error stack; the message
    // then reaches the user on standard error only.
    const std::string message = "MERTAX cannot expand the chunk: damaged data: segment 1 at byte offset ";
    EXPECT_NE(err.Text().find(message), std::string::npos) << err.Text();
#if !H5_VERSION_GE(1, 14, 0)
    EXPECT_NE(errors.Text().find(message), std::string::npos) << errors.Text();
    EXPECT_NE(errors.Text().find("runs past the data [Filter operation failed]\n"), std::string::npos) << errors.Text();
#endif
}

} // namespace
