// Scratch memory kept from one call to the next, for one call at a time.
//
// A chunk-sized buffer allocated and freed for every chunk comes back from the C library on fresh
// pages whenever the heap has been trimmed (or the block mapped) in between, and every page is
// faulted in again: HDF5's filter pipeline, which frees a chunk-sized buffer of its own every
// chunk, makes that the rule. A kept buffer stays resident.
#pragma once

#include <cstddef>
#include <cstdint>
#include <mutex>

class CKeptScratch
{
public:
    // At least `bytes`: the kept buffer, enlarged if need be, unless another call holds it or
    // `bytes` is above KEPT_MAX; otherwise a buffer of its own. Data() is null when memory runs out.
    explicit CKeptScratch(size_t bytes);
    ~CKeptScratch();
    CKeptScratch(const CKeptScratch&) = delete;
    CKeptScratch& operator=(const CKeptScratch&) = delete;

    uint8_t* Data() const { return m_pData; }

    // Larger requests get a buffer of their own: the kept one is held until the library is unloaded.
    static constexpr size_t KEPT_MAX = size_t(16) << 20;

private:
    std::unique_lock<std::mutex> m_kept; // locked while this call holds the kept buffer
    uint8_t* m_pData = nullptr;
    bool m_own = false;
};
