#include "connector/bayeux/Services.h"

#include "connector/bayeux/ChannelName.h"

namespace connector::bayeux {

namespace {

template <class Table>
Services::ServicePtr findIn(const Table& services, const std::string& channel)
{
    auto found = services.find(channel);
    if (found == services.end()) {
        for (const auto& pattern : patternsOf(channel))
            if (found = services.find(pattern); found != services.end())
                break;
    }
    return found == services.end() ? nullptr : found->second.back();
}

} // namespace

void Services::add(const std::string& channel, ServicePtr service)
{
    std::lock_guard lock(mutex_);
    tableOf(*service)[channel].push_back(std::move(service));
}

void Services::remove(const std::string& channel, const ServicePtr& service)
{
    std::lock_guard lock(mutex_);
    auto& services = tableOf(*service);
    const auto found = services.find(channel);
    if (found == services.end())
        return;
    std::erase(found->second, service);
    if (found->second.empty())
        services.erase(found);
}

Services::ServicePtr Services::find(const std::string& channel) const
{
    std::lock_guard lock(mutex_);
    auto found = findIn(first_, channel);
    return found ? found : findIn(left_, channel);
}

} // namespace connector::bayeux
