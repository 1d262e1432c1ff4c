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
    std::lock_guard lock(mutex_);
    auto found = services_.find(channel);
    if (found == services_.end()) {
        for (const auto& pattern : patternsOf(channel))
            if (found = services_.find(pattern); found != services_.end())
                break;
    }
    return found == services_.end() ? nullptr : found->second.back();
}

} // namespace connector::bayeux
