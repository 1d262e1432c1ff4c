#pragma once

#include <memory>
#include <string>
#include <utility>

#include "platform/us/ServiceInterface.h"
#include "platform/us/ServiceReferenceBase.h"

namespace us {

/// A reference that stands for one interface of the service.
template <class Interface>
class ServiceReference : public ServiceReferenceBase
{
public:
    ServiceReference() = default;
    /// Empty when the other's service was not registered under this interface.
    ServiceReference(const ServiceReferenceBase& other)
        : ServiceReferenceBase(other, ::us_service_interface_iid<Interface>())
    {}
    using ServiceReferenceBase::operator=;
};

/// A reference to the service as a whole.
template <>
class ServiceReference<void> : public ServiceReferenceBase
{
public:
    ServiceReference() = default;
    ServiceReference(const ServiceReferenceBase& other) : ServiceReferenceBase(other, std::string()) {}
    explicit ServiceReference(std::shared_ptr<detail::ServiceRecord> record)
        : ServiceReferenceBase(std::move(record), std::string())
    {}
    using ServiceReferenceBase::operator=;
};

using ServiceReferenceU = ServiceReference<void>;

} // namespace us

template <class Interface>
struct std::hash<us::ServiceReference<Interface>> : std::hash<us::ServiceReferenceBase>
{};
