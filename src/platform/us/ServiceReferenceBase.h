#pragma once

#include <compare>
#include <cstddef>
#include <functional>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include "platform/Export.h"
#include "platform/us/Any.h"
#include "platform/us/detail/PropertyMap.h"

namespace us {

class Bundle;
class LDAPFilter;

namespace detail {
struct ServiceRecord;
} // namespace detail

/// The consumer's handle to a service: cheap to copy, outlives service and framework, keeps neither the service object
/// nor the bundle alive. An ordinary value as to threads; what it shows may change at any time.
class VENDRA_PLATFORM_API ServiceReferenceBase
{
public:
    /// Refers to no service.
    ServiceReferenceBase() = default;
    ServiceReferenceBase& operator=(std::nullptr_t) noexcept;

    /// The service is registered. Still true while listeners hear that it goes.
    explicit operator bool() const;

    /// Empty for unknown keys and when this refers to no service. Readable after the service is gone.
    Any GetProperty(const std::string& key) const;
    std::vector<std::string> GetPropertyKeys() const;

    /// Who offers the service; null once it is gone.
    std::shared_ptr<Bundle> GetBundle() const;
    /// Who holds the service object at the moment.
    std::vector<std::shared_ptr<Bundle>> GetUsingBundles() const;

    /// The interface through which GetService hands out the object; empty in an untyped reference.
    const std::string& GetInterfaceId() const noexcept { return interfaceId_; }
    /// The service was registered under that interface.
    bool IsConvertibleTo(const std::string& interfaceId) const;

    /// Whether lookups prefer this service: the higher ranking, among equals the older registration. For one choice
    /// only: rankings change.
    bool IsBetterThan(const ServiceReferenceBase& other) const;

    /// Identity of the service, whatever the interface.
    friend bool operator==(const ServiceReferenceBase& a, const ServiceReferenceBase& b) noexcept
    {
        return a.record_ == b.record_;
    }
    /// By age, those that refer to nothing first. Never changes, hence fit for containers.
    VENDRA_PLATFORM_API friend std::strong_ordering operator<=>(const ServiceReferenceBase& a,
                                                                const ServiceReferenceBase& b) noexcept;

    std::size_t Hash() const noexcept { return std::hash<const void*>()(record_.get()); }

    VENDRA_PLATFORM_API friend std::ostream& operator<<(std::ostream& out, const ServiceReferenceBase& reference);

protected:
    ServiceReferenceBase(std::shared_ptr<detail::ServiceRecord> record, std::string interfaceId);
    /// Empty when the service was not registered under that interface.
    ServiceReferenceBase(const ServiceReferenceBase& other, std::string interfaceId);

private:
    friend class BundleContext;
    friend class LDAPFilter;
    friend class ServiceRegistrationBase;
    friend class ServiceTrackerBase;

    /// Null when this refers to no service.
    detail::PropertyMapPtr properties() const;

    std::shared_ptr<detail::ServiceRecord> record_;
    std::string interfaceId_;
};

} // namespace us

template <>
struct std::hash<us::ServiceReferenceBase>
{
    std::size_t operator()(const us::ServiceReferenceBase& reference) const noexcept { return reference.Hash(); }
};
