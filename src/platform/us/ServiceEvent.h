#pragma once

#include <functional>
#include <memory>
#include <ostream>

#include "platform/Export.h"
#include "platform/us/ServiceReference.h"

namespace us {

/// What happened to a service.
class VENDRA_PLATFORM_API ServiceEvent
{
public:
    enum Type : unsigned
    {
        REGISTERED = 1,
        MODIFIED = 2,
        UNREGISTERING = 4,
        /// Properties changed so that the listener's filter, which matched before, matches no more.
        MODIFIED_ENDMATCH = 8
    };

    ServiceEvent(Type type, ServiceReferenceU reference) : type_(type), reference_(std::move(reference)) {}

    Type GetType() const noexcept { return type_; }
    const ServiceReferenceU& GetServiceReference() const noexcept { return reference_; }
    /// Empty when the service was not registered under that interface.
    template <class Interface>
    ServiceReference<Interface> GetServiceReference() const
    {
        return reference_;
    }

    VENDRA_PLATFORM_API friend std::ostream& operator<<(std::ostream& out, const ServiceEvent& event);

private:
    Type type_;
    ServiceReferenceU reference_;
};

/// Called on the thread that causes the event, before that thread's call returns, with no lock held; calls may overlap.
/// It may do anything to the registry, its own removal included. Its exceptions are logged and go no further. Several
/// listeners are called in no particular order.
using ServiceListener = std::function<void(const ServiceEvent&)>;

/// Names one added listener. Copyable; destroying it leaves the listener in place.
class ListenerToken
{
public:
    ListenerToken() = default;
    explicit operator bool() const noexcept { return id_ != 0; }

private:
    friend class BundleContext;
    explicit ListenerToken(long id) : id_(id) {}

    long id_ = 0;
};

} // namespace us
