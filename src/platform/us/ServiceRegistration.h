#pragma once

#include <concepts>
#include <utility>

#include "platform/us/ServiceRegistrationBase.h"

namespace us {

template <class... Interfaces>
class ServiceRegistration;

/// The handle of a service whose interfaces are not known at compile time. `us::ServiceRegistration handle;` is one.
template <>
class ServiceRegistration<> : public ServiceRegistrationBase
{
public:
    ServiceRegistration() = default;
    ServiceRegistration(const ServiceRegistrationBase& other) : ServiceRegistrationBase(other) {}
    using ServiceRegistrationBase::operator=;

private:
    friend class BundleContext;
    using ServiceRegistrationBase::ServiceRegistrationBase;
};

using ServiceRegistrationU = ServiceRegistration<>;

/// The handle of a service offered under the named interfaces.
template <class First, class... Others>
class ServiceRegistration<First, Others...> : public ServiceRegistrationBase
{
public:
    ServiceRegistration() = default;
    /// Empty when the other's service lacks one of the interfaces.
    ServiceRegistration(const ServiceRegistrationU& other)
        : ServiceRegistrationBase(other, {::us_service_interface_iid<First>(), ::us_service_interface_iid<Others>()...})
    {}
    using ServiceRegistrationBase::operator=;

    ServiceReference<First> GetReference() const { return ServiceRegistrationBase::GetReference(); }

    template <class Interface>
    requires(std::same_as<Interface, First> ||
             (... || std::same_as<Interface, Others>)) ServiceReference<Interface> GetReference()
    const { return ServiceRegistrationBase::GetReference(); }
};

ServiceRegistration()->ServiceRegistration<>;

} // namespace us

template <class... Interfaces>
struct std::hash<us::ServiceRegistration<Interfaces...>> : std::hash<us::ServiceRegistrationBase>
{};
