#pragma once

#include <cstddef>
#include <functional>
#include <memory>

#include "connector/Export.h"

namespace connector::common {

/// Few threads for work that may block. Threads: any.
class CONNECTOR_API WorkerPool
{
public:
    /// `threads` are started as they are needed; at most `capacity` jobs wait.
    explicit WorkerPool(std::size_t threads = 4, std::size_t capacity = 1'000);
    /// Drops what waits (destroying the jobs) and joins.
    ~WorkerPool();
    WorkerPool(const WorkerPool&) = delete;
    WorkerPool& operator=(const WorkerPool&) = delete;

    /// False when the queue is full. Jobs must not throw; one that does is logged.
    [[nodiscard]] bool post(std::function<void()> job);

private:
    class Impl;
    std::unique_ptr<Impl> impl_;
};

} // namespace connector::common
