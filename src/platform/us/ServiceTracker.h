#pragma once

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "platform/us/LDAPFilter.h"
#include "platform/us/ServiceReference.h"
#include "platform/us/ServiceTrackerBase.h"

namespace us {

/// The live set of services of one interface, with their objects. Follows registrations and property changes before the
/// call that causes them returns. Counts as user of what it tracks until closed.
///
/// Closes by itself when its context dies: it is empty then, and only Open throws. Threads: any. Ask once and test what
/// you get: between IsEmpty and GetService the service may go.
template <class Service>
class ServiceTracker
{
public:
    /// Tracks the services of interface Service. A null context throws std::invalid_argument, here and below.
    explicit ServiceTracker(BundleContext* context) : base_(context, ::us_service_interface_iid<Service>()) {}
    /// Tracks the services under that id, which must stand for Service.
    ServiceTracker(BundleContext* context, const std::string& interfaceId) : base_(context, interfaceId) {}
    /// Tracks the services of interface Service for as long as their properties match.
    ServiceTracker(BundleContext* context, const LDAPFilter& filter)
        : base_(context, ::us_service_interface_iid<Service>(), filter)
    {}
    /// Tracks one service. Throws std::invalid_argument for a reference to none.
    ServiceTracker(BundleContext* context, const ServiceReference<Service>& reference)
        : base_(context, ::us_service_interface_iid<Service>(), reference)
    {}

    /// All present matches are tracked when it returns. Nothing when open. Throws InvalidContextException when the
    /// context is dead.
    void Open() { base_.open(); }
    /// Wakes who waits. Objects handed out stay valid. Nothing when not open.
    void Close() noexcept { base_.close(); }

    bool IsEmpty() const { return base_.size() == 0; }
    std::size_t Size() const { return base_.size(); }
    /// Services that came, changed and went since Open; -1 when not open.
    int GetTrackingCount() const { return base_.trackingCount(); }

    /// The object of the best match, or null.
    std::shared_ptr<Service> GetService() const { return std::static_pointer_cast<Service>(base_.service()); }
    /// The object of that service, or null when it is not tracked.
    std::shared_ptr<Service> GetService(const ServiceReferenceBase& reference) const
    {
        return std::static_pointer_cast<Service>(base_.service(reference));
    }

    /// Waits until there is a service, at most that long; zero is without limit. Returns null when the time is over,
    /// and as soon as the tracker is closed or its context dies; at once when it is not open. Throws
    /// std::invalid_argument for a negative time.
    template <class Rep = int, class Period = std::milli>
    std::shared_ptr<Service> WaitForService(std::chrono::duration<Rep, Period> limit = {}) const
    {
        using std::chrono::milliseconds; // rounded away from zero, which has a meaning of its own
        return std::static_pointer_cast<Service>(base_.waitForService(
            limit.count() < 0 ? std::chrono::floor<milliseconds>(limit) : std::chrono::ceil<milliseconds>(limit)));
    }

    /// The best match. Throws ServiceException when there is none.
    ServiceReference<Service> GetServiceReference() const { return base_.reference(); }
    /// All, best first.
    std::vector<ServiceReference<Service>> GetServiceReferences() const
    {
        const auto untyped = base_.references();
        return {untyped.begin(), untyped.end()};
    }

private:
    ServiceTrackerBase base_;
};

} // namespace us
