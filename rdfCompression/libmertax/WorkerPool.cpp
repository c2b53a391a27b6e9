#include "WorkerPool.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <system_error>
#include <thread>
#include <vector>

#if defined(__unix__) || defined(__APPLE__)
#include <pthread.h>
#define MERTAX_HAS_ATFORK 1
#endif
#ifdef _WIN32
#define WIN32_LEAN_AND_MEAN
#ifndef NOMINMAX
#define NOMINMAX
#endif
#include <windows.h>
#include <intrin.h>
#endif

namespace {

struct CJob
{
    const std::function<void(size_t)>* pTask;
    size_t count;
    std::atomic<size_t> next{0};
    unsigned helpersWanted; // workers that may still join
    std::atomic<unsigned> helpersActive{0}; // changed under g_mutex, read without it while spinning

    void Work()
    {
        for (size_t i = next.fetch_add(1); i < count; i = next.fetch_add(1))
            (*pTask)(i);
    }
};

// Everything a fork must not inherit half-way: the workers and what they wait on. A child drops
// it (its workers do not exist there) and builds a new one on first use.
struct CPoolState
{
    std::vector<std::thread> workers;
    std::deque<CJob*> jobs; // jobs that still want helpers
    std::condition_variable wake;
    std::condition_variable finished;
    bool stopping = false;
};

std::mutex g_mutex; // guards g_pState and all of its fields
CPoolState* g_pState = nullptr;
std::atomic<size_t> g_queued{0}; // jobs in g_pState->jobs, changed under g_mutex

// How long a thread polls before it sleeps, when it waits for a job or for helpers to finish.
// Waking a sleeping thread takes tens of microseconds, as long as coding a few segments; chunks
// come back to back, so a worker that has just finished one usually finds the next this way.
constexpr auto SPIN = std::chrono::microseconds(100);

// Tells the processor that this is a polling loop (it then spends less power, and leaves more of
// the core to a sibling hardware thread).
inline void CpuRelax()
{
#if defined(__x86_64__) || defined(__i386__)
    __builtin_ia32_pause();
#elif defined(_M_X64) || defined(_M_IX86)
    _mm_pause();
#elif defined(__aarch64__)
    asm volatile("yield");
#endif
}

// Polls `ready` (which reads only atomics) for up to SPIN; true as soon as it holds.
template <typename Ready>
bool SpinUntil(Ready ready)
{
    const auto deadline = std::chrono::steady_clock::now() + SPIN;
    for (unsigned k = 0;; ++k) {
        if (ready())
            return true;
        CpuRelax();
        if (k % 64 == 63 && std::chrono::steady_clock::now() > deadline)
            return false;
    }
}

void WorkerLoop(CPoolState* pState)
{
    std::unique_lock<std::mutex> lock(g_mutex);
    for (;;) {
        if (pState->jobs.empty() && !pState->stopping) {
            lock.unlock();
            SpinUntil([] { return g_queued.load(std::memory_order_relaxed) != 0; });
            lock.lock();
        }
        pState->wake.wait(lock, [&] { return pState->stopping || !pState->jobs.empty(); });
        if (pState->stopping)
            return;
        CJob* pJob = pState->jobs.front();
        if (--pJob->helpersWanted == 0) {
            pState->jobs.pop_front();
            --g_queued;
        }
        ++pJob->helpersActive;
        lock.unlock();
        pJob->Work();
        lock.lock();
        if (--pJob->helpersActive == 0)
            pState->finished.notify_all();
    }
}

#ifdef MERTAX_HAS_ATFORK
void LockForFork() { g_mutex.lock(); }
void UnlockInParent() { g_mutex.unlock(); }
// The forking thread holds the lock in the child too; the workers stayed in the parent.
void ForgetInChild()
{
    g_pState = nullptr; // deliberately leaked: its threads and waits belong to the parent
    g_queued = 0;
    g_mutex.unlock();
}
#endif

// Called with g_mutex held: the state, with at least `helpers` workers.
CPoolState& PoolWithWorkers(unsigned helpers)
{
    if (g_pState == nullptr) {
#ifdef MERTAX_HAS_ATFORK
        static const bool registered = pthread_atfork(LockForFork, UnlockInParent, ForgetInChild) == 0;
        (void)registered;
#endif
#ifdef _WIN32
        // Windows runs a DLL's static destructors under the loader lock, which a thread needs to end:
        // the workers could never be joined there. So the module that holds the pool stays loaded
        // once it has workers, and they end with the process.
        HMODULE self;
        GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_PIN,
                           reinterpret_cast<LPCWSTR>(&PoolWithWorkers), &self);
#endif
        g_pState = new CPoolState;
    }
    // A thread that cannot be started leaves the job to the workers there are (and the caller).
    try {
        while (g_pState->workers.size() < helpers)
            g_pState->workers.emplace_back(WorkerLoop, g_pState);
    } catch (const std::system_error&) {
    }
    return *g_pState;
}

#ifndef _WIN32
// Joins the workers when the library is unloaded (or the program ends).
struct CPoolShutdown
{
    ~CPoolShutdown()
    {
        CPoolState* pState;
        {
            std::lock_guard<std::mutex> lock(g_mutex);
            pState = g_pState;
            g_pState = nullptr;
            if (pState == nullptr)
                return;
            pState->stopping = true;
            pState->wake.notify_all();
        }
        for (std::thread& worker : pState->workers)
            worker.join();
        delete pState;
    }
} g_shutdown;
#endif

} // namespace

void RunTasks(unsigned threads, size_t count, const std::function<void(size_t)>& task)
{
    if (count == 0)
        return;
    const unsigned helpers = unsigned(std::min<size_t>(std::clamp(threads, 1u, MAX_THREADS), count)) - 1;
    if (helpers == 0) {
        for (size_t i = 0; i < count; ++i)
            task(i);
        return;
    }
    CJob job;
    job.pTask = &task;
    job.count = count;
    job.helpersWanted = helpers;
    CPoolState* pState;
    {
        std::lock_guard<std::mutex> lock(g_mutex);
        pState = &PoolWithWorkers(helpers);
        pState->jobs.push_back(&job);
        ++g_queued;
        pState->wake.notify_all();
    }
    job.Work();
    std::unique_lock<std::mutex> lock(g_mutex);
    // Workers that have not joined yet will find nothing left to do: withdraw the offer.
    const auto queued = std::find(pState->jobs.begin(), pState->jobs.end(), &job);
    if (queued != pState->jobs.end()) {
        pState->jobs.erase(queued);
        --g_queued;
    }
    if (job.helpersActive == 0)
        return;
    lock.unlock();
    if (SpinUntil([&] { return job.helpersActive.load(std::memory_order_acquire) == 0; })) {
        // The last helper may still hold the lock, notifying; the job is no longer touched.
        return;
    }
    lock.lock();
    pState->finished.wait(lock, [&] { return job.helpersActive == 0; });
}
