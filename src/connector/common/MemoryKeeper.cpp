#include "connector/common/MemoryKeeper.h"

#include <atomic>

#include <malloc.h>

#include "connector/common/TickManager.h"
#include "connector/common/WorkerPool.h"

namespace connector::common {

namespace {

/// Less is not worth the allocator's locks.
constexpr std::size_t kWorthIt = 4u << 20;

} // namespace

class MemoryKeeper::Impl
{
public:
    explicit Impl(std::chrono::milliseconds interval)
        : ticks_(TickManager::instance()->every(interval, [this] { (void)worker_.post([this] { look(); }); }))
    {}

private:
    /// The allocator counts pages that it gave back as free memory still, so that only growth says that there is more.
    void look()
    {
        const std::size_t free = ::mallinfo2().fordblks;
        if (free >= free_ + kWorthIt) {
            ::malloc_trim(0);
            free_ = ::mallinfo2().fordblks;
        } else if (free < free_) {
            free_ = free;
        }
    }

    std::size_t free_ = 0; ///< after the last look
    WorkerPool worker_{1, 1};
    TickManager::Subscription ticks_; ///< the first to go
};

MemoryKeeper::MemoryKeeper(std::chrono::milliseconds interval) : impl_(std::make_unique<Impl>(interval)) {}

MemoryKeeper::~MemoryKeeper() = default;

} // namespace connector::common
