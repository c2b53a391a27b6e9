// Threaded chunk I/O against the filter pipeline: the same chunks byte for byte, whatever the
// shape, cell size, level and thread count; and its failures reported, never silent.
#include "Hdf5Handles.h"
#include "SampleData.h"
#include "ThreadedChunkIO.h"

#include <gtest/gtest.h>

#include <numeric>

namespace {

class ThreadedChunkIO : public testing::Test
{
protected:
    void SetUp() override
    {
        H5Eset_auto2(H5E_DEFAULT, nullptr, nullptr);
        m_path = ScratchFile("mertax_threaded_");
    }
    void TearDown() override { std::remove(m_path.c_str()); }
    std::string m_path;
};

std::vector<uint8_t> RawChunk(hid_t dataset, const std::vector<hsize_t>& offset)
{
    hsize_t size = 0;
    H5Dget_chunk_storage_size(dataset, offset.data(), &size);
    std::vector<uint8_t> chunk(size);
    uint32_t mask = 0;
    H5Dread_chunk(dataset, H5P_DEFAULT, offset.data(), &mask, chunk.data());
    return chunk;
}

// Every chunk's stored bytes of two datasets of the same shape and chunking.
void ExpectSameChunks(hid_t a, hid_t b, const std::vector<hsize_t>& dims, const std::vector<hsize_t>& chunk)
{
    std::vector<hsize_t> offset(dims.size(), 0);
    for (;;) {
        ASSERT_EQ(RawChunk(a, offset), RawChunk(b, offset)) << "chunk at " << offset[0];
        size_t d = dims.size();
        while (d-- > 0) {
            offset[d] += chunk[d];
            if (offset[d] < dims[d])
                break;
            offset[d] = 0;
        }
        if (d == size_t(-1))
            return;
    }
}

TEST_F(ThreadedChunkIO, ChunksEqualThePipelinesAndReadBackEverywhere)
{
    struct Case
    {
        size_t cellBytes;
        unsigned level;
        std::vector<hsize_t> dims, chunk;
        uint64_t fill; // edge chunks are padded with it, as the pipeline pads them
    } cases[] = {
        {2, 4, {45, 700}, {16, 256}, 7},        // partial edge chunks in both dimensions
        {1, 0, {100000}, {30000}, 0xFF},        // one-dimensional, a partial last chunk
        {4, 9, {5, 33, 70}, {2, 16, 64}, 0},    // three dimensions
        {8, 8, {64, 64}, {32, 64}, 0},          // whole chunks only
        {2, 1, {3000}, {3000}, 0},              // one chunk
    };
    CHid file = CreateFile(m_path);
    int n = 0;
    for (const Case& c : cases) {
        const size_t cells = std::accumulate(c.dims.begin(), c.dims.end(), size_t(1), std::multiplies<size_t>());
        const std::vector<uint8_t> data = MakeShapeBytes(EShape::LOW_COUNTS, c.cellBytes, cells, 7 + n);
        const std::vector<unsigned> cd = {1, 1, 0, 0, 0, c.level};
        CHid pipeline = CreateFilteredDataset(file, "pipeline" + std::to_string(n), c.cellBytes, c.dims, c.chunk, cd,
                                              H5Z_FLAG_MANDATORY, c.fill);
        ASSERT_GE(WriteAll(pipeline, c.cellBytes, data), 0);
        for (unsigned threads : {1u, 2u, 7u}) {
            SCOPED_TRACE(testing::Message() << "case " << n << ", " << threads << " threads");
            const std::string name = "threaded" + std::to_string(n) + "_" + std::to_string(threads);
            CHid threaded = CreateFilteredDataset(file, name, c.cellBytes, c.dims, c.chunk, cd, H5Z_FLAG_MANDATORY, c.fill);
            CThreadedChunkIO io(threaded, threads);
            ASSERT_TRUE(io.Write(data.data())) << io.Error();
            ExpectSameChunks(threaded, pipeline, c.dims, c.chunk);
            EXPECT_EQ(ReadAll(threaded, c.cellBytes, data.size()), data);
            std::vector<uint8_t> back(data.size());
            ASSERT_TRUE(CThreadedChunkIO(pipeline, threads).Read(back.data()));
            EXPECT_EQ(back, data);
        }
        ++n;
    }
}

TEST_F(ThreadedChunkIO, FailuresAreReported)
{
    const std::vector<uint8_t> data = MakeShapeBytes(EShape::LOW_COUNTS, 2, 40000);
    {
        CHid file = CreateFile(m_path);
        CHid space(H5Screate_simple(1, std::vector<hsize_t>{40000}.data(), nullptr), H5Sclose);
        CHid dcpl(H5Pcreate(H5P_DATASET_CREATE), H5Pclose);
        const hsize_t chunk[] = {10000};
        H5Pset_chunk(dcpl, 1, chunk);
        H5Pset_deflate(dcpl, 4);
        CHid gzip(H5Dcreate2(file, "gzip", H5T_NATIVE_UINT16, space, H5P_DEFAULT, dcpl, H5P_DEFAULT), H5Dclose);
        CThreadedChunkIO io(gzip, 2);
        EXPECT_FALSE(io.Valid());
        EXPECT_FALSE(io.Write(data.data()));
        EXPECT_EQ(io.Error(), "the dataset is not chunked with filter 32910 as its only filter");
        // Ours with a checksum after it, and another filter alone with as many words as ours.
        const unsigned cd[] = {1, 1, 0, 0, 0, 4};
        for (const char* name : {"with_checksum", "other_filter"}) {
            CHid other(H5Pcreate(H5P_DATASET_CREATE), H5Pclose);
            H5Pset_chunk(other, 1, chunk);
            const bool checksum = name[0] == 'w';
            H5Pset_filter(other, checksum ? ZV_H5_MERTAX_FILTER_ID : ZV_H5_MERTAX_FILTER_ID + 1, H5Z_FLAG_OPTIONAL, 6, cd);
            if (checksum)
                H5Pset_fletcher32(other);
            CHid dset(H5Dcreate2(file, name, H5T_NATIVE_UINT16, space, H5P_DEFAULT, other, H5P_DEFAULT), H5Dclose);
            ASSERT_GE(hid_t(dset), 0) << name;
            EXPECT_EQ(CThreadedChunkIO(dset, 2).Error(), "the dataset is not chunked with filter 32910 as its only filter")
                << name;
        }

        CHid good = CreateFilteredDataset(file, "good", 2, {40000}, {10000}, {1, 1, 0, 0, 0, 4});
        CThreadedChunkIO goodIo(good, 2);
        ASSERT_TRUE(goodIo.Write(data.data())) << goodIo.Error();
        // A damaged chunk fails the read with where it broke. One worker's window (two chunks) is
        // shorter than the dataset: it takes the chunk after the damaged one, then waits for one
        // that the failed read never loads, and must be woken to finish.
        const std::vector<uint8_t> first = RawChunk(good, {0});
        const hsize_t origin[] = {0};
        ASSERT_GE(H5Dwrite_chunk(good, H5P_DEFAULT, 0, origin, first.size() - 8, first.data()), 0);
        std::vector<uint8_t> back(data.size());
        for (unsigned threads : {1u, 3u}) {
            CThreadedChunkIO reader(good, threads);
            EXPECT_FALSE(reader.Read(back.data()));
            EXPECT_NE(reader.Error().find("chunk 0: damaged data: segment"), std::string::npos) << reader.Error();
        }
        ASSERT_GE(H5Dwrite_chunk(good, H5P_DEFAULT, 0, origin, first.size(), first.data()), 0);
        // A chunk stored with the filter skipped (mask bit 0) holds the cells themselves.
        const hsize_t offset[] = {10000};
        ASSERT_GE(H5Dwrite_chunk(good, H5P_DEFAULT, 1, offset, 20000, data.data() + 20000), 0);
        CThreadedChunkIO raw(good, 2);
        EXPECT_TRUE(raw.Read(back.data())) << raw.Error();
        EXPECT_EQ(back, data);
        ASSERT_GE(H5Dwrite_chunk(good, H5P_DEFAULT, 1, offset, 19998, data.data() + 20000), 0);
        CThreadedChunkIO cut(good, 2);
        EXPECT_FALSE(cut.Read(back.data()));
        EXPECT_EQ(cut.Error(), "chunk 1 is stored unfiltered with the wrong size");
    }
    // A file opened read-only takes no chunk: the first write fails and says so.
    CHid file(H5Fopen(m_path.c_str(), H5F_ACC_RDONLY, H5P_DEFAULT), H5Fclose);
    CHid good = OpenDataset(file, "good");
    CThreadedChunkIO io(good, 2);
    EXPECT_FALSE(io.Write(data.data()));
    EXPECT_EQ(io.Error(), "the dataset's file is not open for writing");
}

TEST_F(ThreadedChunkIO, ChunksNeverWrittenReadAsTheFillValue)
{
    CHid file = CreateFile(m_path);
    CHid dataset = CreateFilteredDataset(file, "sparse", 2, {40, 1000}, {16, 256}, {1, 1, 0, 0, 0, 4},
                                         H5Z_FLAG_MANDATORY, 0x1234);
    // Only a block in the middle is written: the other chunks are never stored.
    const hsize_t start[] = {16, 256}, count[] = {16, 256};
    CHid memory(H5Screate_simple(2, count, nullptr), H5Sclose);
    CHid file_space(H5Dget_space(dataset), H5Sclose);
    H5Sselect_hyperslab(file_space, H5S_SELECT_SET, start, nullptr, count, nullptr);
    const std::vector<uint8_t> block = MakeShapeBytes(EShape::LOW_COUNTS, 2, 16 * 256, 3);
    ASSERT_GE(H5Dwrite(dataset, H5T_NATIVE_UINT16, memory, file_space, H5P_DEFAULT, block.data()), 0);

    const std::vector<uint8_t> expected = ReadAll(dataset, 2, 40 * 1000 * 2);
    ASSERT_FALSE(expected.empty());
    std::vector<uint8_t> back(expected.size());
    CThreadedChunkIO io(dataset, 2);
    ASSERT_TRUE(io.Read(back.data())) << io.Error();
    EXPECT_EQ(back, expected);
}

} // namespace
