// The library's one pool of worker threads, shared by every codec object and front end. Workers
// start on first use, poll briefly and then sleep between jobs, are joined when the library is
// unloaded, and are forgotten in a child after fork (the child starts its own on first use).
#pragma once

#include <cstddef>
#include <functional>

// Runs task(0) .. task(count - 1), each exactly once, on the calling thread and on up to
// threads - 1 workers, and returns when all are done. Tasks are taken in index order. The caller
// always takes part, so a busy pool slows a job down but never stalls it. Tasks must not throw.
void RunTasks(unsigned threads, size_t count, const std::function<void(size_t)>& task);

// The most threads a job may use; larger counts are clamped to it.
constexpr unsigned MAX_THREADS = 64;
