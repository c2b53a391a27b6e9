#include "KeptScratch.h"

#include <cstdlib>

namespace {

std::mutex g_keptMutex; // held by the call that uses the kept buffer

// Freed when the library is unloaded.
struct SKeptBuffer
{
    ~SKeptBuffer() { std::free(pData); }
    uint8_t* pData = nullptr;
    size_t size = 0;
} g_kept;

} // namespace

CKeptScratch::CKeptScratch(size_t bytes) : m_kept(g_keptMutex, std::defer_lock)
{
    // A call made while another holds the kept buffer (several threads compressing at once) does
    // not wait for it.
    if (bytes <= KEPT_MAX && m_kept.try_lock()) {
        if (g_kept.size < bytes) {
            std::free(g_kept.pData);
            g_kept.pData = static_cast<uint8_t*>(std::malloc(bytes));
            g_kept.size = g_kept.pData != nullptr ? bytes : 0;
        }
        m_pData = g_kept.pData;
        return;
    }
    m_pData = static_cast<uint8_t*>(std::malloc(bytes));
    m_own = true;
}

CKeptScratch::~CKeptScratch()
{
    if (m_own)
        std::free(m_pData);
}
