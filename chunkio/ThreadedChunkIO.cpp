#include "ThreadedChunkIO.h"

#include "CheckedExpansion.h"
#include "mertax.h"

#include <algorithm>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <thread>

namespace {


// One chunk's buffers between the calling thread and a worker.
struct SSlot
{
    std::vector<uint8_t> bytes; // compressed on write; compressed as read on read
    size_t size = 0;
    bool ready = false; // write: compressed; read: expanded into the array
    bool loaded = false; // read: the compressed bytes are in
    bool unfiltered = false;
    std::string error;
};

// The chunks in flight and the workers that take them, in chunk order. The calling thread makes
// slot i available (write: always; read: once it has read the chunk) and waits for it to be ready.
class CChunkPipeline
{
public:
    CChunkPipeline(size_t chunks, unsigned threads) : m_slots(2 * size_t(threads)), m_chunks(chunks) {}
    size_t Window() const { return m_slots.size(); }
    SSlot& Slot(size_t chunk) { return m_slots[chunk % m_slots.size()]; }

    // Worker side: the next chunk whose slot is free (and, with needLoaded, loaded); false at the end.
    bool Take(size_t& chunk, bool needLoaded)
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_changed.wait(lock, [&] {
            return m_stop || m_next >= m_chunks ||
                   (m_next < m_done + Window() && (!needLoaded || Slot(m_next).loaded));
        });
        if (m_stop || m_next >= m_chunks)
            return false;
        chunk = m_next++;
        return true;
    }
    void Finish(size_t chunk)
    {
        Change([&] { Slot(chunk).ready = true; });
    }
    // Calling thread side.
    void WaitReady(size_t chunk)
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_changed.wait(lock, [&] { return Slot(chunk).ready; });
    }
    bool HasRoom(size_t chunk)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return chunk < m_done + Window();
    }
    void Loaded(size_t chunk)
    {
        Change([&] { Slot(chunk).loaded = true; });
    }
    void Release(size_t chunk)
    {
        Change([&] {
            SSlot& slot = Slot(chunk);
            slot.ready = slot.loaded = slot.unfiltered = false;
            slot.error.clear();
            m_done = chunk + 1;
        });
    }
    void Stop()
    {
        Change([&] { m_stop = true; });
    }

private:
    // Changes the shared state under the lock, then wakes every waiting thread.
    template <typename F>
    void Change(F&& change)
    {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            change();
        }
        m_changed.notify_all();
    }

    std::vector<SSlot> m_slots;
    size_t m_chunks;
    size_t m_next = 0; // next chunk for a worker
    size_t m_done = 0; // chunks the calling thread is through with
    bool m_stop = false;
    std::mutex m_mutex;
    std::condition_variable m_changed;
};

// Runs `work` on `threads` workers until it returns, joining them on every path.
template <typename W, typename C>
void RunWorkers(unsigned threads, const W& work, C&& onCaller)
{
    std::vector<std::thread> workers;
    for (unsigned t = 0; t < threads; ++t)
        workers.emplace_back(work);
    onCaller();
    for (std::thread& w : workers)
        w.join();
}

} // namespace

CThreadedChunkIO::CThreadedChunkIO(hid_t dataset, unsigned threads)
    : m_dataset(dataset), m_threads(threads != 0 ? threads : std::max(1u, std::thread::hardware_concurrency()))
{
    const hid_t dcpl = H5Dget_create_plist(dataset);
    const hid_t type = H5Dget_type(dataset);
    const hid_t space = H5Dget_space(dataset);
    unsigned cd[6] = {};
    size_t words = 6;
    unsigned flags = 0;
    if (dcpl < 0 || type < 0 || space < 0) {
        m_error = "not a dataset";
    } else if (H5Pget_layout(dcpl) != H5D_CHUNKED || H5Pget_nfilters(dcpl) != 1 ||
               H5Pget_filter2(dcpl, 0, &flags, &words, cd, 0, nullptr, nullptr) != ZV_H5_MERTAX_FILTER_ID || words < 6) {
        m_error = "the dataset is not chunked with filter 32910 as its only filter";
    } else {
        m_dims.resize(size_t(H5Sget_simple_extent_ndims(space)));
        H5Sget_simple_extent_dims(space, m_dims.data(), nullptr);
        m_chunk.resize(m_dims.size());
        H5Pget_chunk(dcpl, int(m_chunk.size()), m_chunk.data());
        m_cellBytes = cd[4];
        m_level = int(std::min(cd[5], 9u)); // levels above 9 code as 9
        m_typeBytes = H5Tget_size(type);
        m_chunkBytes = m_typeBytes;
        m_chunkCount = 1;
        for (size_t d = 0; d < m_dims.size(); ++d) {
            m_chunkBytes *= m_chunk[d];
            m_grid.push_back((m_dims[d] + m_chunk[d] - 1) / m_chunk[d]);
            m_chunkCount *= m_grid.back();
        }
        // What HDF5 reads where nothing was written and pads edge chunks with.
        m_fill.assign(m_typeBytes, 0);
        if (m_typeBytes != 0 && H5Pget_fill_value(dcpl, type, m_fill.data()) < 0)
            m_fill.assign(m_typeBytes, 0);
        if (!IsCellSize(m_cellBytes) || m_chunkBytes % m_cellBytes != 0)
            m_error = "the dataset's filter parameters have cellBytes " + std::to_string(m_cellBytes) +
                      ", which the codec cannot use for chunks of " + std::to_string(m_chunkBytes) + " bytes";
    }
    if (space >= 0)
        H5Sclose(space);
    if (type >= 0)
        H5Tclose(type);
    if (dcpl >= 0)
        H5Pclose(dcpl);
}

void CThreadedChunkIO::ChunkOrigin(size_t index, std::vector<hsize_t>& origin) const
{
    origin.resize(m_dims.size());
    for (size_t d = m_dims.size(); d-- > 0;) {
        origin[d] = (index % m_grid[d]) * m_chunk[d];
        index /= m_grid[d];
    }
}

template <typename F>
void CThreadedChunkIO::ForEachRow(const std::vector<hsize_t>& origin, F&& f) const
{
    // Rows along the last dimension; the chunk's rows past the dataset's edge are left alone.
    const size_t rank = m_dims.size();
    const size_t cell = m_typeBytes;
    const size_t rowBytes = size_t(std::min(m_chunk[rank - 1], m_dims[rank - 1] - origin[rank - 1])) * cell;
    std::vector<hsize_t> within(rank, 0);
    for (;;) {
        bool inside = true;
        size_t arrayCell = 0, chunkCell = 0;
        for (size_t d = 0; d < rank; ++d) {
            inside &= origin[d] + within[d] < m_dims[d];
            arrayCell = arrayCell * m_dims[d] + origin[d] + within[d];
            chunkCell = chunkCell * m_chunk[d] + within[d];
        }
        if (inside)
            f(arrayCell * cell, chunkCell * cell, rowBytes);
        // The next row: count up the dimensions before the last.
        size_t d = rank - 1;
        while (d-- > 0) {
            if (++within[d] < m_chunk[d])
                break;
            within[d] = 0;
        }
        if (d == size_t(-1))
            return;
    }
}

const uint8_t* CThreadedChunkIO::ContiguousChunk(const uint8_t* pArray, const std::vector<hsize_t>& origin) const
{
    // The chunk is one run of the array when it lies inside the dataset and spans every dimension
    // but the first.
    if (origin[0] + m_chunk[0] > m_dims[0])
        return nullptr;
    for (size_t d = 1; d < m_dims.size(); ++d)
        if (m_chunk[d] != m_dims[d])
            return nullptr;
    size_t offset = origin[0] * m_typeBytes;
    for (size_t d = 1; d < m_dims.size(); ++d)
        offset *= m_dims[d];
    return pArray + offset;
}

void CThreadedChunkIO::FillChunk(uint8_t* pChunk) const
{
    for (size_t i = 0; i < m_chunkBytes; i += m_typeBytes)
        std::memcpy(pChunk + i, m_fill.data(), m_typeBytes);
}

void CThreadedChunkIO::Gather(const uint8_t* pArray, const std::vector<hsize_t>& origin, uint8_t* pChunk) const
{
    FillChunk(pChunk); // HDF5 pads edge chunks with the fill value too
    ForEachRow(origin, [&](size_t a, size_t c, size_t n) { std::memcpy(pChunk + c, pArray + a, n); });
}

void CThreadedChunkIO::Scatter(const uint8_t* pChunk, const std::vector<hsize_t>& origin, uint8_t* pArray) const
{
    ForEachRow(origin, [&](size_t a, size_t c, size_t n) { std::memcpy(pArray + a, pChunk + c, n); });
}

bool CThreadedChunkIO::Write(const void* cells)
{
    if (!Valid())
        return false;
    // A direct chunk write into a file opened read-only fails, and HDF5 1.10 then crashes when
    // the file is closed: it must not be tried.
    unsigned intent = 0;
    const hid_t file = H5Iget_file_id(m_dataset);
    const bool writable = file >= 0 && H5Fget_intent(file, &intent) >= 0 && (intent & H5F_ACC_RDWR) != 0;
    if (file >= 0)
        H5Fclose(file);
    if (!writable) {
        m_error = "the dataset's file is not open for writing";
        return false;
    }
    const uint8_t* pArray = static_cast<const uint8_t*>(cells);
    CChunkPipeline pipeline(m_chunkCount, m_threads);
    const size_t bound = mertax_compress_bound(m_cellBytes, m_chunkBytes);
    auto worker = [&] {
        std::vector<uint8_t> chunk(m_chunkBytes);
        std::vector<hsize_t> origin;
        size_t index;
        while (pipeline.Take(index, false)) {
            SSlot& slot = pipeline.Slot(index);
            ChunkOrigin(index, origin);
            // A chunk that is one run of the array is compressed where it lies.
            const uint8_t* pCells = ContiguousChunk(pArray, origin);
            if (pCells == nullptr) {
                Gather(pArray, origin, chunk.data());
                pCells = chunk.data();
            }
            slot.bytes.resize(bound);
            slot.size = mertax_compress(pCells, m_chunkBytes, m_cellBytes, m_level, slot.bytes.data(), bound);
            if (slot.size == 0)
                slot.error = "chunk " + std::to_string(index) + " could not be compressed";
            pipeline.Finish(index);
        }
    };
    size_t written = 0;
    std::string error;
    RunWorkers(m_threads, worker, [&] {
        std::vector<hsize_t> origin;
        for (; written < m_chunkCount; ++written) {
            pipeline.WaitReady(written);
            SSlot& slot = pipeline.Slot(written);
            ChunkOrigin(written, origin);
            if (!slot.error.empty())
                error = slot.error;
            else if (H5Dwrite_chunk(m_dataset, H5P_DEFAULT, 0, origin.data(), slot.size, slot.bytes.data()) < 0)
                error = "HDF5 could not write chunk " + std::to_string(written);
            if (!error.empty())
                break;
            pipeline.Release(written);
        }
        pipeline.Stop();
    });
    if (error.empty())
        return true;
    m_error = error + "; chunks 0 to " + std::to_string(written) + " (exclusive) of " +
              std::to_string(m_chunkCount) + " were written";
    return false;
}

bool CThreadedChunkIO::Read(void* cells)
{
    if (!Valid())
        return false;
    uint8_t* pArray = static_cast<uint8_t*>(cells);
    CChunkPipeline pipeline(m_chunkCount, m_threads);
    auto worker = [&] {
        std::vector<uint8_t> chunk(m_chunkBytes);
        std::vector<hsize_t> origin;
        size_t index;
        while (pipeline.Take(index, true)) {
            SSlot& slot = pipeline.Slot(index);
            ChunkOrigin(index, origin);
            // A chunk that is one run of the array is expanded where it goes.
            uint8_t* const pDirect = const_cast<uint8_t*>(ContiguousChunk(pArray, origin));
            uint8_t* const pCells = pDirect != nullptr ? pDirect : chunk.data();
            if (slot.size == 0) {
                FillChunk(pCells); // never written: the fill value, as HDF5 reads it
            } else if (slot.unfiltered) {
                if (slot.size == m_chunkBytes)
                    std::memcpy(pCells, slot.bytes.data(), m_chunkBytes);
                else
                    slot.error = "chunk " + std::to_string(index) + " is stored unfiltered with the wrong size";
            } else {
                std::string error;
                if (!ExpandStream(slot.bytes.data(), slot.size, m_cellBytes, pCells, m_chunkBytes, error))
                    slot.error = "chunk " + std::to_string(index) + ": " + error;
            }
            if (slot.error.empty() && pDirect == nullptr)
                Scatter(chunk.data(), origin, pArray);
            pipeline.Finish(index);
        }
    };
    std::string error;
    RunWorkers(m_threads, worker, [&] {
        std::vector<hsize_t> origin;
        size_t loaded = 0;
        for (size_t done = 0; done < m_chunkCount && error.empty(); ++done) {
            // Read ahead as far as the window allows, then wait for the oldest chunk.
            for (; loaded < m_chunkCount && pipeline.HasRoom(loaded); ++loaded) {
                SSlot& slot = pipeline.Slot(loaded);
                ChunkOrigin(loaded, origin);
                hsize_t size = 0;
                uint32_t mask = 0;
                if (H5Dget_chunk_storage_size(m_dataset, origin.data(), &size) < 0)
                    size = 0;
                slot.size = size_t(size);
                slot.bytes.resize(slot.size);
                if (size != 0 && H5Dread_chunk(m_dataset, H5P_DEFAULT, origin.data(), &mask, slot.bytes.data()) < 0)
                    slot.error = "HDF5 could not read chunk " + std::to_string(loaded);
                slot.unfiltered = (mask & 1) != 0;
                pipeline.Loaded(loaded);
            }
            pipeline.WaitReady(done);
            error = pipeline.Slot(done).error;
            pipeline.Release(done);
        }
        pipeline.Stop();
    });
    if (error.empty())
        return true;
    m_error = error;
    return false;
}
