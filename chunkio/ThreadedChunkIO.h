// Writing and reading a dataset that uses filter 32910 with the codec running on several threads.
//
// HDF5's filter pipeline compresses one chunk at a time on the calling thread. Here chunks are
// compressed on worker threads and written in order with direct chunk writes (filter mask 0), and
// read with direct chunk reads and expanded on workers. The chunks are exactly what the filter
// stores, so the file is an ordinary filtered dataset that any reader with the plugin opens.
// HDF5 itself is only called from the calling thread. Memory stays bounded: at most a fixed
// number of chunks (twice the threads) are in flight.
#pragma once

#include <hdf5.h>

#include <cstddef>
#include <string>
#include <vector>

class CThreadedChunkIO
{
public:
    // `dataset` must be chunked with filter 32910 as its only filter; threads 0 means one per core.
    // Valid() tells whether it is, Error() why not.
    CThreadedChunkIO(hid_t dataset, unsigned threads = 0);

    bool Valid() const { return m_error.empty(); }
    const std::string& Error() const { return m_error; }
    unsigned Threads() const { return m_threads; }
    size_t ChunkCount() const { return m_chunkCount; }

    // Writes the whole dataset from `cells`, in C order, of the dataset's shape and cell type.
    // False with Error() on failure; Error() then also says how many chunks were written, in order,
    // before it (the others keep what they held).
    bool Write(const void* cells);
    // Reads the whole dataset into `cells`; false with Error() on failure.
    bool Read(void* cells);

private:
    // The coordinates of chunk `index` (in C order of the chunk grid) in the dataset.
    void ChunkOrigin(size_t index, std::vector<hsize_t>& origin) const;
    // Where the chunk at `origin` lies in the array when it is one contiguous run of it, else null.
    const uint8_t* ContiguousChunk(const uint8_t* pArray, const std::vector<hsize_t>& origin) const;
    // Fills a chunk buffer with the dataset's fill value.
    void FillChunk(uint8_t* pChunk) const;
    // Copies between a chunk buffer (full chunk size, padded with the fill value at the edges) and
    // the array.
    void Gather(const uint8_t* pArray, const std::vector<hsize_t>& origin, uint8_t* pChunk) const;
    void Scatter(const uint8_t* pChunk, const std::vector<hsize_t>& origin, uint8_t* pArray) const;
    template <typename F>
    void ForEachRow(const std::vector<hsize_t>& origin, F&& f) const;

    hid_t m_dataset;
    unsigned m_threads;
    std::string m_error;
    std::vector<hsize_t> m_dims;
    std::vector<hsize_t> m_chunk;
    std::vector<hsize_t> m_grid; // chunks per dimension
    size_t m_typeBytes = 0;  // of the dataset's cells, as the array holds them
    size_t m_cellBytes = 0;  // the filter's cellBytes
    int m_level = 4;
    size_t m_chunkBytes = 0;
    std::vector<uint8_t> m_fill; // one cell of the dataset's fill value
    size_t m_chunkCount = 0;
};
