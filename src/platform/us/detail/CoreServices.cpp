// The services' half of the core: registering, changing, looking up, using.
#include <algorithm>
#include <array>
#include <sstream>
#include <stdexcept>

#include "platform/us/BundleContext.h"
#include "platform/us/Exceptions.h"
#include "platform/us/ServiceConstants.h"
#include "platform/us/detail/Core.h"
#include "platform/us/detail/Report.h"

namespace us::detail {

namespace {

/// One counter for all frameworks, whatever their number and restarts.
long nextServiceId()
{
    static std::atomic<long> last = 0;
    return ++last;
}

std::vector<std::string> checkedInterfaces(const InterfaceMapConstPtr& objects)
{
    if (!objects || objects->empty())
        throw std::invalid_argument("Can't register empty InterfaceMap as a service");
    std::vector<std::string> interfaces;
    for (const auto& [interfaceId, object] : *objects) {
        if (interfaceId.empty() || !object)
            throw std::invalid_argument("Can't register as null class");
        interfaces.push_back(interfaceId);
    }
    return interfaces;
}

/// The provider's properties with the framework's own over them.
PropertyMapPtr completed(const ServiceProperties& properties, const ServiceRecord& record)
{
    PropertyMap all = toPropertyMap(properties);
    const std::array<std::pair<std::string, Any>, 4> own{{{ServiceConstants::OBJECTCLASS(), record.interfaces},
                                                          {ServiceConstants::SERVICE_ID(), record.id},
                                                          {ServiceConstants::SERVICE_SCOPE(), "singleton"},
                                                          {ServiceConstants::SERVICE_BUNDLEID(), record.owner.id}}};
    for (const auto& [key, value] : own) {
        all.erase(key); // with the provider's spelling
        all.emplace(key, value);
    }
    return std::make_shared<const PropertyMap>(std::move(all));
}

int rankingIn(const PropertyMap& properties)
{
    const auto found = properties.find(ServiceConstants::SERVICE_RANKING());
    if (found == properties.end())
        return 0;
    if (const int* ranking = any_cast<int>(&found->second))
        return *ranking;
    std::ostringstream text;
    text << "The ranking of service " << valueOf(properties, ServiceConstants::SERVICE_ID()).ToStringNoExcept()
         << " counts as 0: it must be an int, and is " << found->second.ToJSON() << " of type "
         << typeName(found->second.Type());
    report(text.str());
    return 0;
}

} // namespace

bool ServiceRecord::offers(const std::string& interfaceId) const
{
    return std::find(interfaces.begin(), interfaces.end(), interfaceId) != interfaces.end();
}

ServiceUse::ServiceUse(ServiceRecordPtr record, const BundleContext* context, InterfaceMapConstPtr objects)
    : record_(std::move(record)), context_(context), objects_(std::move(objects))
{}

ServiceUse::~ServiceUse() { record_->core->endUse(*record_, context_); }

ServiceRecordPtr Core::registerService(const BundleContext& context, const InterfaceMapConstPtr& objects,
                                       const ServiceProperties& properties)
{
    std::vector<std::string> interfaces = checkedInterfaces(objects);
    const auto record = ServiceRecordPtr(new ServiceRecord{shared_from_this(),
                                                           nextServiceId(),
                                                           std::move(interfaces),
                                                           &context,
                                                           context.bundle_,
                                                           ServiceRecord::State::kRegistered,
                                                           nullptr,
                                                           0,
                                                           nullptr,
                                                           {}});
    const PropertyMapPtr all = completed(properties, *record);
    record->properties = all;
    record->ranking = rankingIn(*all);
    record->objects = std::make_shared<const InterfaceMap>(*objects);
    Audience audience;
    {
        const std::lock_guard lock(mutex_);
        if (!context.valid_)
            throw InvalidContextException();
        services_.emplace(record->id, record);
        audience = audience_;
    }
    tell(ServiceEvent::REGISTERED, record, all, all, audience);
    return record;
}

void Core::setProperties(const ServiceRecordPtr& record, const ServiceProperties& properties)
{
    const PropertyMapPtr now = completed(properties, *record);
    const int ranking = rankingIn(*now);
    PropertyMapPtr before;
    Audience audience;
    {
        const std::lock_guard lock(mutex_);
        if (record->state == ServiceRecord::State::kUnregistered)
            throw std::logic_error("Service is unregistered");
        before = std::exchange(record->properties, now);
        record->ranking = ranking;
        audience = audience_;
    }
    tell(ServiceEvent::MODIFIED, record, before, now, audience);
}

void Core::unregister(const ServiceRecordPtr& record)
{
    if (!tryUnregister(record) && !isPresent(*record))
        throw std::logic_error("Service is unregistered");
}

/// False when somebody else does it or did it.
bool Core::tryUnregister(const ServiceRecordPtr& record)
{
    Audience audience;
    PropertyMapPtr properties;
    {
        const std::lock_guard lock(mutex_);
        if (record->state != ServiceRecord::State::kRegistered)
            return false;
        record->state = ServiceRecord::State::kUnregistering;
        audience = audience_;
        properties = record->properties;
    }
    tell(ServiceEvent::UNREGISTERING, record, properties, properties, audience);
    InterfaceMapConstPtr objects; // outlives the lock
    const std::lock_guard lock(mutex_);
    objects = finish(*record);
    return true;
}

/// With the mutex held. The caller lets go of the objects when it has released it.
InterfaceMapConstPtr Core::finish(ServiceRecord& record)
{
    record.state = ServiceRecord::State::kUnregistered;
    record.uses.clear();
    InterfaceMapConstPtr objects = std::move(record.objects);
    services_.erase(record.id);
    return objects;
}

/// Those that there are, youngest first; not what listeners go on registering, which might never end.
void Core::unregisterAll(const BundleContext& context)
{
    std::vector<ServiceRecordPtr> own;
    {
        const std::lock_guard lock(mutex_);
        for (const auto& [id, record] : services_)
            if (record->ownerContext == &context)
                own.push_back(record);
    }
    for (auto record = own.rbegin(); record != own.rend(); ++record)
        tryUnregister(*record);
}

std::vector<ServiceRecordPtr> Core::find(const BundleContext& context, const std::string& interfaceId,
                                         const std::optional<LDAPFilter>& filter) const
{
    std::vector<ServiceRecordPtr> found;
    const std::lock_guard lock(mutex_);
    if (!context.valid_)
        throw InvalidContextException();
    for (const auto& [id, record] : services_)
        if (record->state == ServiceRecord::State::kRegistered &&
            (interfaceId.empty() || record->offers(interfaceId)) && (!filter || filter->Match(*record->properties)))
            found.push_back(record);
    std::stable_sort(found.begin(), found.end(), [](const ServiceRecordPtr& a, const ServiceRecordPtr& b) {
        return a->ranking > b->ranking; // equal ones stay in the order of their ids
    });
    return found;
}

ServiceUsePtr Core::use(const ServiceRecordPtr& record, const BundleContext& context)
{
    InterfaceMapConstPtr objects;
    {
        const std::lock_guard lock(mutex_);
        if (!context.valid_ || record->state == ServiceRecord::State::kUnregistered)
            return nullptr;
        objects = record->objects;
        ++record->uses[&context];
    }
    return std::make_shared<ServiceUse>(record, &context, std::move(objects));
}

void Core::endUse(ServiceRecord& record, const BundleContext* context) noexcept
{
    const std::lock_guard lock(mutex_);
    const auto found = record.uses.find(context);
    if (found != record.uses.end() && --found->second == 0) // gone when the service or the context is
        record.uses.erase(found);
}

bool Core::isPresent(const ServiceRecord& record) const
{
    const std::lock_guard lock(mutex_);
    return record.state != ServiceRecord::State::kUnregistered;
}

bool Core::isRegistered(const ServiceRecord& record, const std::optional<LDAPFilter>& filter) const
{
    const std::lock_guard lock(mutex_);
    return record.state == ServiceRecord::State::kRegistered && (!filter || filter->Match(*record.properties));
}

PropertyMapPtr Core::properties(const ServiceRecord& record) const
{
    const std::lock_guard lock(mutex_);
    return record.properties;
}

int Core::ranking(const ServiceRecord& record) const
{
    const std::lock_guard lock(mutex_);
    return record.ranking;
}

std::shared_ptr<Bundle> Core::owner(const ServiceRecord& record) const
{
    const std::lock_guard lock(mutex_);
    return record.state == ServiceRecord::State::kUnregistered ? nullptr : record.owner.handle.lock();
}

std::vector<std::shared_ptr<Bundle>> Core::users(const ServiceRecord& record) const
{
    std::vector<std::shared_ptr<Bundle>> result;
    const std::lock_guard lock(mutex_);
    for (const auto& [context, count] : record.uses)
        if (auto handle = context->bundle_.handle.lock())
            result.push_back(std::move(handle));
    return result;
}

std::vector<ServiceRecordPtr> Core::servicesOf(const BundleRecord& bundle) const
{
    std::vector<ServiceRecordPtr> result;
    const std::lock_guard lock(mutex_);
    for (const auto& [id, record] : services_)
        if (record->ownerContext == bundle.context)
            result.push_back(record);
    return result;
}

std::vector<ServiceRecordPtr> Core::usedBy(const BundleRecord& bundle) const
{
    std::vector<ServiceRecordPtr> result;
    const std::lock_guard lock(mutex_);
    for (const auto& [id, record] : services_)
        if (record->uses.contains(bundle.context))
            result.push_back(record);
    return result;
}

} // namespace us::detail
