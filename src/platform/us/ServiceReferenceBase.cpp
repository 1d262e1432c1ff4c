#include "platform/us/ServiceReferenceBase.h"

#include <utility>

#include "platform/us/Bundle.h"
#include "platform/us/detail/Core.h"

namespace us {

ServiceReferenceBase::ServiceReferenceBase(std::shared_ptr<detail::ServiceRecord> record, std::string interfaceId)
    : record_(std::move(record)), interfaceId_(std::move(interfaceId))
{}

ServiceReferenceBase::ServiceReferenceBase(const ServiceReferenceBase& other, std::string interfaceId)
    : record_(other.IsConvertibleTo(interfaceId) ? other.record_ : nullptr), interfaceId_(std::move(interfaceId))
{}

ServiceReferenceBase& ServiceReferenceBase::operator=(std::nullptr_t) noexcept
{
    record_.reset();
    return *this;
}

ServiceReferenceBase::operator bool() const { return record_ && record_->core->isPresent(*record_); }

detail::PropertyMapPtr ServiceReferenceBase::properties() const
{
    return record_ ? record_->core->properties(*record_) : nullptr;
}

Any ServiceReferenceBase::GetProperty(const std::string& key) const
{
    const auto all = properties();
    return all ? detail::valueOf(*all, key) : Any();
}

std::vector<std::string> ServiceReferenceBase::GetPropertyKeys() const
{
    std::vector<std::string> keys;
    if (const auto all = properties())
        for (const auto& [key, value] : *all)
            keys.push_back(key);
    return keys;
}

std::shared_ptr<Bundle> ServiceReferenceBase::GetBundle() const
{
    return record_ ? record_->core->owner(*record_) : nullptr;
}

std::vector<std::shared_ptr<Bundle>> ServiceReferenceBase::GetUsingBundles() const
{
    return record_ ? record_->core->users(*record_) : std::vector<std::shared_ptr<Bundle>>();
}

bool ServiceReferenceBase::IsConvertibleTo(const std::string& interfaceId) const
{
    return record_ && (interfaceId.empty() || record_->offers(interfaceId));
}

bool ServiceReferenceBase::IsBetterThan(const ServiceReferenceBase& other) const
{
    if (!record_ || !other.record_)
        return record_ && !other.record_;
    const int mine = record_->core->ranking(*record_);
    const int others = other.record_->core->ranking(*other.record_);
    return mine != others ? mine > others : record_->id < other.record_->id;
}

std::strong_ordering operator<=>(const ServiceReferenceBase& a, const ServiceReferenceBase& b) noexcept
{
    return (a.record_ ? a.record_->id : 0) <=> (b.record_ ? b.record_->id : 0);
}

std::ostream& operator<<(std::ostream& out, const ServiceReferenceBase& reference)
{
    const auto all = reference.properties();
    if (!all)
        return out << "Invalid service reference";
    out << "Reference for service of " << reference.record_->owner.name << " (";
    const char* separator = "";
    for (const auto& [key, value] : *all) {
        out << separator << key << "=" << (value.Empty() ? "null" : value.ToString());
        separator = ", ";
    }
    return out << ")";
}

} // namespace us
