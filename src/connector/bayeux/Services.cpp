#include "connector/bayeux/Services.h"

#include "connector/bayeux/ChannelName.h"

namespace connector::bayeux {

void Services::add(const std::string& channel, HandlerPtr handler)
{
    std::lock_guard lock(mutex_);
    if (!handlers_.emplace(channel, std::move(handler)).second)
        throw std::invalid_argument("The service channel \"" + channel + "\" has a handler already.");
}

void Services::remove(const std::string& channel)
{
    HandlerPtr dropped;
    std::lock_guard lock(mutex_);
    if (const auto found = handlers_.find(channel); found != handlers_.end()) {
        dropped = std::move(found->second);
        handlers_.erase(found);
    }
}

Services::HandlerPtr Services::find(const std::string& channel) const
{
    auto names = patternsOf(channel);
    names.insert(names.begin(), channel);
    std::lock_guard lock(mutex_);
    for (const auto& name : names) {
        if (const auto found = handlers_.find(name); found != handlers_.end())
            return found->second;
    }
    return nullptr;
}

} // namespace connector::bayeux
