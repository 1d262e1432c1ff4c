#pragma once

#include <chrono>
#include <memory>

#include "connector/Export.h"

namespace connector::common {

/// Gives memory that nobody uses any more back to the system: what a crowd of clients or a large message took stays
/// with the allocator otherwise. Looks every few seconds and works on a thread of its own, while this lives.
class CONNECTOR_API MemoryKeeper
{
public:
    explicit MemoryKeeper(std::chrono::milliseconds interval = std::chrono::seconds(5));
    ~MemoryKeeper();
    MemoryKeeper(const MemoryKeeper&) = delete;
    MemoryKeeper& operator=(const MemoryKeeper&) = delete;

private:
    class Impl;
    std::unique_ptr<Impl> impl_;
};

} // namespace connector::common
