#pragma once

#include <chrono>
#include <cstddef>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "platform/Export.h"
#include "platform/us/ServiceReference.h"

namespace us {

class BundleContext;
class LDAPFilter;

namespace detail {
class Core;
class TrackerSession;
struct TrackedSet;
} // namespace detail

/// The part of ServiceTracker that does not depend on the service's type.
class VENDRA_PLATFORM_API ServiceTrackerBase
{
public:
    ServiceTrackerBase(BundleContext* context, std::string interfaceId);
    ServiceTrackerBase(BundleContext* context, std::string interfaceId, const LDAPFilter& filter);
    ServiceTrackerBase(BundleContext* context, std::string interfaceId, const ServiceReferenceBase& reference);
    ~ServiceTrackerBase();
    ServiceTrackerBase(const ServiceTrackerBase&) = delete;
    ServiceTrackerBase& operator=(const ServiceTrackerBase&) = delete;

    void open();
    void close() noexcept;
    std::size_t size() const;
    int trackingCount() const;
    ServiceReferenceU reference() const;
    std::vector<ServiceReferenceU> references() const;
    std::shared_ptr<void> service() const;
    std::shared_ptr<void> service(const ServiceReferenceBase& reference) const;
    std::shared_ptr<void> waitForService(std::chrono::milliseconds limit) const;

private:
    std::shared_ptr<detail::TrackerSession> session() const;

    const std::shared_ptr<detail::Core> core_;
    BundleContext* const context_; ///< kept by the core
    const std::unique_ptr<const detail::TrackedSet> wanted_;

    mutable std::mutex mutex_; ///< the session's and the core's may be taken with this one held
    std::shared_ptr<detail::TrackerSession> session_;
};

} // namespace us
