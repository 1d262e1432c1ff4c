#include "platform/us/BundleContext.h"

#include <algorithm>
#include <stdexcept>
#include <utility>

#include "platform/us/Bundle.h"
#include "platform/us/detail/Core.h"

namespace us {

namespace {

std::optional<LDAPFilter> parsed(const std::string& filter)
{
    return filter.empty() ? std::nullopt : std::make_optional<LDAPFilter>(filter);
}

} // namespace

BundleContext::BundleContext(Key, detail::Core& core, detail::BundleRecord& bundle) : core_(core), bundle_(bundle) {}

BundleContext::~BundleContext() = default;

Any BundleContext::GetProperty(const std::string& key) const
{
    core_.requireValid(*this);
    Any own = detail::valueOf(bundle_.properties, key);
    return own.Empty() ? detail::valueOf(core_.configuration(), key) : own;
}

std::shared_ptr<Bundle> BundleContext::GetBundle() const { return GetBundle(bundle_.id); }

std::shared_ptr<Bundle> BundleContext::GetBundle(long id) const
{
    for (auto& bundle : GetBundles())
        if (bundle->GetBundleId() == id)
            return bundle;
    return nullptr;
}

std::shared_ptr<Bundle> BundleContext::GetBundle(const std::string& name) const
{
    for (auto& bundle : GetBundles())
        if (bundle->GetName() == name)
            return bundle;
    return nullptr;
}

std::vector<std::shared_ptr<Bundle>> BundleContext::GetBundles() const { return core_.bundles(*this); }

ServiceRegistrationU BundleContext::RegisterService(const InterfaceMapConstPtr& objects,
                                                    const ServiceProperties& properties)
{
    core_.requireValid(*this);
    const auto kept = core_.shared_from_this();
    return ServiceRegistrationU(kept->registerService(*this, objects, properties));
}

ServiceReferenceU BundleContext::GetServiceReference(const std::string& interfaceId) const
{
    auto found = core_.find(*this, interfaceId, std::nullopt);
    return found.empty() ? ServiceReferenceU() : ServiceReferenceU(std::move(found.front()));
}

std::vector<ServiceReferenceU> BundleContext::GetServiceReferences(const std::string& interfaceId,
                                                                   const std::string& filter) const
{
    std::vector<ServiceReferenceU> references;
    for (auto& record : core_.find(*this, interfaceId, parsed(filter)))
        references.emplace_back(std::move(record));
    return references;
}

InterfaceMapConstPtr BundleContext::GetService(const ServiceReferenceU& reference) const
{
    core_.requireValid(*this);
    if (!reference.record_)
        throw std::invalid_argument("Default constructed ServiceReference is not a valid input to GetService()");
    auto use = core_.use(reference.record_, *this);
    return use ? InterfaceMapConstPtr(use, &use->objects()) : nullptr;
}

std::shared_ptr<void> BundleContext::object(const ServiceReferenceBase& reference) const
{
    const InterfaceMapConstPtr objects = GetService(ServiceReferenceU(reference));
    const auto found = ExtractInterface(objects, reference.GetInterfaceId());
    return found ? std::shared_ptr<void>(objects, found.get()) : nullptr;
}

ListenerToken BundleContext::AddServiceListener(ServiceListener listener, const std::string& filter)
{
    return addListener(std::move(listener), filter, std::string());
}

ListenerToken BundleContext::addListener(ServiceListener listener, const std::string& filter, std::string methodKey)
{
    core_.requireValid(*this);
    if (!listener)
        throw std::invalid_argument("A service listener must be a function that can be called");
    return ListenerToken(core_.addListener(*this, std::move(listener), parsed(filter), std::move(methodKey)));
}

void BundleContext::RemoveListener(const ListenerToken& token)
{
    core_.removeListeners(*this, [&](const detail::Core::Listener& listener) { return listener.id == token.id_; });
}

void BundleContext::removeListener(const std::string& methodKey)
{
    core_.removeListeners(*this, [&](const detail::Core::Listener& listener) {
        return listener.methodKey == methodKey && listener.context == this;
    });
}

} // namespace us
