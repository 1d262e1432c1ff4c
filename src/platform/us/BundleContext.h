#pragma once

#include <memory>
#include <string>
#include <type_traits>
#include <typeinfo>
#include <vector>

#include "platform/Export.h"
#include "platform/us/InterfaceMap.h"
#include "platform/us/ServiceEvent.h"
#include "platform/us/ServiceProperties.h"
#include "platform/us/ServiceReference.h"
#include "platform/us/ServiceRegistration.h"

namespace us {

class Bundle;
class LDAPFilter;

namespace detail {
class Core;
struct BundleRecord;
} // namespace detail

/// A bundle's ticket to the registry, one per start. Owned by the framework, never by the caller.
///
/// Every call throws InvalidContextException once the bundle has stopped. Threads: any; no call holds a lock while
/// listeners, trackers or destructors of service objects run.
class VENDRA_PLATFORM_API BundleContext
{
    struct Key
    {};

public:
    BundleContext(Key key, detail::Core& core, detail::BundleRecord& bundle);
    ~BundleContext();
    BundleContext(const BundleContext&) = delete;
    BundleContext& operator=(const BundleContext&) = delete;

    /// As Bundle::GetProperty.
    Any GetProperty(const std::string& key) const;
    std::shared_ptr<Bundle> GetBundle() const;
    /// Null when there is none.
    std::shared_ptr<Bundle> GetBundle(long id) const;
    std::shared_ptr<Bundle> GetBundle(const std::string& name) const;
    /// By id, the framework first.
    std::vector<std::shared_ptr<Bundle>> GetBundles() const;

    /// Offers the object under the named interfaces. Listeners have been called when this returns, so others may use
    /// the service before the caller has its handle. Properties of the framework's own names are ignored. Throws
    /// std::invalid_argument for a null object, no interface, an empty interface id, or keys that differ only in case.
    template <class Interface, class... Interfaces, class Impl>
    ServiceRegistration<Interface, Interfaces...> RegisterService(const std::shared_ptr<Impl>& object,
                                                                  const ServiceProperties& properties = {})
    {
        return RegisterService(InterfaceMapConstPtr(MakeInterfaceMap<Interface, Interfaces...>(object)), properties);
    }
    ServiceRegistrationU RegisterService(const InterfaceMapConstPtr& objects, const ServiceProperties& properties = {});

    /// The best match (see ServiceReferenceBase::IsBetterThan) or an empty reference.
    ServiceReferenceU GetServiceReference(const std::string& interfaceId) const;
    template <class Interface>
    ServiceReference<Interface> GetServiceReference() const
    {
        return GetServiceReference(::us_service_interface_iid<Interface>());
    }

    /// All matches, best first; an empty interface id or filter restricts nothing. Throws std::invalid_argument for a
    /// malformed filter.
    std::vector<ServiceReferenceU> GetServiceReferences(const std::string& interfaceId,
                                                        const std::string& filter = std::string()) const;
    template <class Interface>
    std::vector<ServiceReference<Interface>> GetServiceReferences(const std::string& filter = std::string()) const
    {
        const auto untyped = GetServiceReferences(::us_service_interface_iid<Interface>(), filter);
        return {untyped.begin(), untyped.end()};
    }

    /// The service object; empty when the service is gone. The bundle counts as its user until the last copy of the
    /// returned pointer is dropped, which may happen at any time, even after the framework has gone. Throws
    /// std::invalid_argument for a reference to no service.
    template <class Interface>
    std::shared_ptr<Interface> GetService(const ServiceReference<Interface>& reference) const
    {
        return std::static_pointer_cast<Interface>(object(reference));
    }
    /// The object through all its interfaces. The bundle counts as user while the map is held.
    InterfaceMapConstPtr GetService(const ServiceReferenceU& reference) const;

    /// Hears of the services that match the filter, from now until removed or until this bundle stops. Each call adds
    /// one more. Throws std::invalid_argument for a malformed filter or an empty function.
    ListenerToken AddServiceListener(ServiceListener listener, const std::string& filter = std::string());
    /// The same for a method. Adding the same object and method again replaces the filter. The object must outlive the
    /// listener.
    template <class Receiver, class Method>
    requires std::is_member_function_pointer_v<Method>
        ListenerToken AddServiceListener(Receiver* receiver, Method method, const std::string& filter = std::string())
    {
        return addListener([receiver, method](const ServiceEvent& event) { (receiver->*method)(event); }, filter,
                           keyOf(receiver, method));
    }

    /// Once it returns no new call begins; one that has begun on another thread may still run. Unknown ones are
    /// ignored.
    void RemoveListener(const ListenerToken& token);
    template <class Receiver, class Method>
    requires std::is_member_function_pointer_v<Method>
    void RemoveServiceListener(Receiver* receiver, Method method) { removeListener(keyOf(receiver, method)); }

private:
    friend class detail::Core;
    friend class ServiceTrackerBase;

    /// Tells listeners made of an object and a method apart.
    template <class Receiver, class Method>
    static std::string keyOf(Receiver* receiver, Method method)
    {
        std::string key(reinterpret_cast<const char*>(&receiver), sizeof receiver);
        key.append(reinterpret_cast<const char*>(&method), sizeof method);
        return key + typeid(Method).name();
    }

    std::shared_ptr<void> object(const ServiceReferenceBase& reference) const;
    ListenerToken addListener(ServiceListener listener, const std::string& filter, std::string methodKey);
    void removeListener(const std::string& methodKey);

    detail::Core& core_;
    detail::BundleRecord& bundle_;
    bool valid_ = true; ///< guarded by the core
};

} // namespace us
