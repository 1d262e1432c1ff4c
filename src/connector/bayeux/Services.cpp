#include "connector/bayeux/Services.h"

#include "connector/bayeux/ChannelName.h"

namespace connector::bayeux {

void Services::add(const std::string& channel, ServicePtr service)
{
    std::lock_guard lock(mutex_);
    services_[channel].push_back(std::move(service));
}

void Services::remove(const std::string& channel, const ServicePtr& service)
{
    std::lock_guard lock(mutex_);
    const auto found = services_.find(channel);
    if (found == services_.end())
        return;
    std::erase(found->second, service);
    if (found->second.empty())
        services_.erase(found);
}

Services::ServicePtr Services::find(const std::string& channel) const
{
    auto names = patternsOf(channel);
    names.insert(names.begin(), channel);
    std::lock_guard lock(mutex_);
    for (const auto& name : names) {
        if (const auto found = services_.find(name); found != services_.end())
            return found->second.back();
    }
    return nullptr;
}

} // namespace connector::bayeux
