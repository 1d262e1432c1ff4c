#include "platform/us/ServiceRegistrationBase.h"

#include <algorithm>
#include <stdexcept>
#include <utility>

#include "platform/us/detail/Core.h"

namespace us {

ServiceRegistrationBase::ServiceRegistrationBase(std::shared_ptr<detail::ServiceRecord> record)
    : record_(std::move(record))
{}

ServiceRegistrationBase::ServiceRegistrationBase(const ServiceRegistrationBase& other,
                                                 std::initializer_list<std::string> interfaceIds)
{
    if (other.record_ && std::all_of(interfaceIds.begin(), interfaceIds.end(),
                                     [&](const std::string& id) { return other.record_->offers(id); }))
        record_ = other.record_;
}

ServiceRegistrationBase& ServiceRegistrationBase::operator=(std::nullptr_t) noexcept
{
    record_.reset();
    return *this;
}

detail::ServiceRecord& ServiceRegistrationBase::record() const
{
    if (!record_)
        throw std::logic_error("ServiceRegistrationBase object invalid");
    return *record_;
}

bool ServiceRegistrationBase::IsRegistered() const { return record_ && record_->core->isPresent(*record_); }

ServiceReferenceU ServiceRegistrationBase::GetReference() const
{
    record();
    if (!IsRegistered())
        throw std::logic_error("Service is unregistered");
    return ServiceReferenceU(record_);
}

void ServiceRegistrationBase::SetProperties(const ServiceProperties& properties)
{
    // Copied: a listener may empty this very handle.
    const auto kept = record().core;
    kept->setProperties(std::shared_ptr<detail::ServiceRecord>(record_), properties);
}

void ServiceRegistrationBase::Unregister()
{
    const auto kept = record().core;
    kept->unregister(std::shared_ptr<detail::ServiceRecord>(record_));
}

std::strong_ordering operator<=>(const ServiceRegistrationBase& a, const ServiceRegistrationBase& b) noexcept
{
    return (a.record_ ? a.record_->id : 0) <=> (b.record_ ? b.record_->id : 0);
}

} // namespace us
