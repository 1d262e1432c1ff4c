#pragma once

#include <chrono>
#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "platform/us/LDAPFilter.h"
#include "platform/us/detail/Core.h"

namespace us::detail {

/// Which services a tracker wants.
struct TrackedSet
{
    std::string interfaceId;
    std::optional<LDAPFilter> filter;
    ServiceRecordPtr only; ///< null: any service
};

/// What a tracker knows between Open and Close. The core shares it until it is closed, by its tracker or by the end of
/// its context; afterwards it stays closed and empty. Threads: any.
///
/// Events are taken as hints to look again, never as facts: events of different threads may arrive in any order.
class TrackerSession
{
public:
    TrackerSession(std::shared_ptr<Core> core, const BundleContext& context, TrackedSet wanted);

    /// Drops of service objects that a call leads to; the caller lets them run when it has released its mutex.
    using Released = std::vector<ServiceUsePtr>;

    void look(const ServiceRecordPtr& record, bool changed, Released& released);
    void close();

    bool isOpen() const;
    std::size_t size() const;
    int trackingCount() const;
    /// Best first.
    std::vector<ServiceRecordPtr> records() const;
    /// The object of the best service, or null.
    std::shared_ptr<void> service() const;
    /// The object of that service, or null when it is not tracked.
    std::shared_ptr<void> service(const ServiceRecordPtr& record) const;
    /// Returns when there is a service, when the session is closed, or at the deadline.
    void wait(std::optional<std::chrono::steady_clock::time_point> deadline) const;

    const BundleContext& context() const noexcept { return context_; }
    const TrackedSet& wanted() const noexcept { return wanted_; }

private:
    struct Entry
    {
        ServiceRecordPtr record;
        ServiceUsePtr use;
        int ranking;
    };

    const Entry* best() const;
    std::shared_ptr<void> object(const Entry& entry) const;
    bool wants(const ServiceRecord& record) const;

    const std::shared_ptr<Core> core_;
    const BundleContext& context_;
    const TrackedSet wanted_;

    mutable std::mutex mutex_; ///< the core's mutex may be taken with this one held
    mutable std::condition_variable changed_;
    bool open_ = true;
    int count_ = 0;
    std::map<long, Entry> entries_; ///< by service id
};

} // namespace us::detail
