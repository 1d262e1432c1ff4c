#include "platform/us/Bundle.h"

#include <utility>

#include "platform/us/detail/Core.h"

namespace us {

namespace {

std::vector<ServiceReferenceU> references(std::vector<detail::ServiceRecordPtr> records)
{
    std::vector<ServiceReferenceU> result;
    for (auto& record : records)
        result.emplace_back(std::move(record));
    return result;
}

} // namespace

Bundle::Bundle(std::shared_ptr<detail::Core> core, detail::BundleRecord& record)
    : core_(std::move(core)), record_(record)
{}

Bundle::~Bundle() = default;

long Bundle::GetBundleId() const noexcept { return record_.id; }

const std::string& Bundle::GetName() const noexcept { return record_.name; }

const std::string& Bundle::GetLocation() const noexcept { return record_.location; }

Bundle::State Bundle::GetState() const { return core_->state(record_); }

bool Bundle::IsStarted() const { return (GetState() & (STATE_STARTING | STATE_ACTIVE)) != 0; }

BundleContext* Bundle::GetBundleContext() const { return core_->context(record_); }

Any Bundle::GetProperty(const std::string& key) const
{
    Any own = detail::valueOf(record_.properties, key);
    return own.Empty() ? detail::valueOf(core_->configuration(), key) : own;
}

std::vector<std::string> Bundle::GetPropertyKeys() const
{
    std::vector<std::string> keys;
    for (const auto& [key, value] : record_.properties)
        keys.push_back(key);
    return keys;
}

ServiceProperties Bundle::GetProperties() const { return {record_.properties.begin(), record_.properties.end()}; }

std::vector<ServiceReferenceU> Bundle::GetRegisteredServices() const { return references(core_->servicesOf(record_)); }

std::vector<ServiceReferenceU> Bundle::GetServicesInUse() const { return references(core_->usedBy(record_)); }

} // namespace us
