#pragma once

#include <compare>
#include <cstddef>
#include <functional>
#include <initializer_list>
#include <memory>
#include <string>

#include "platform/Export.h"
#include "platform/us/ServiceProperties.h"
#include "platform/us/ServiceReference.h"

namespace us {

/// The provider's handle to its service. Copies share one state; destroying or nulling a handle leaves the service
/// registered. An ordinary value as to threads; `Unregister` and `SetProperties` of different copies may run at once.
///
/// All members but the comparisons and the questions throw std::logic_error "ServiceRegistrationBase object invalid" on
/// an empty handle and "Service is unregistered" on one whose service is gone, by hand or because its bundle or
/// framework stopped.
class VENDRA_PLATFORM_API ServiceRegistrationBase
{
public:
    ServiceRegistrationBase() = default;
    ServiceRegistrationBase& operator=(std::nullptr_t) noexcept;

    /// The handle was bound to a service once. Says nothing about whether the service is still registered.
    explicit operator bool() const noexcept { return record_ != nullptr; }

    /// The service can be found. Still true while listeners hear that it goes; false for an empty handle.
    bool IsRegistered() const;

    ServiceReferenceU GetReference() const;

    /// Replaces all properties of the provider and tells listeners before it returns; the framework's own are kept.
    /// Throws std::invalid_argument when two keys differ only in case; nothing changes then.
    void SetProperties(const ServiceProperties& properties);

    /// Removes the service from all lookups, tells the listeners (for whom references still work), then lets go of the
    /// object. Consumers that hold the object keep it alive. Returns at once while another call is at it, be it one on
    /// this thread further up.
    void Unregister();

    friend bool operator==(const ServiceRegistrationBase& a, const ServiceRegistrationBase& b) noexcept
    {
        return a.record_ == b.record_;
    }
    /// In the order of the references.
    VENDRA_PLATFORM_API friend std::strong_ordering operator<=>(const ServiceRegistrationBase& a,
                                                                const ServiceRegistrationBase& b) noexcept;

    std::size_t Hash() const noexcept { return std::hash<const void*>()(record_.get()); }

protected:
    explicit ServiceRegistrationBase(std::shared_ptr<detail::ServiceRecord> record);
    /// The other's handle if its service was registered under all these interfaces, else an empty one.
    ServiceRegistrationBase(const ServiceRegistrationBase& other, std::initializer_list<std::string> interfaceIds);

private:
    friend class BundleContext;

    detail::ServiceRecord& record() const;

    std::shared_ptr<detail::ServiceRecord> record_;
};

} // namespace us

template <>
struct std::hash<us::ServiceRegistrationBase>
{
    std::size_t operator()(const us::ServiceRegistrationBase& registration) const noexcept
    {
        return registration.Hash();
    }
};
