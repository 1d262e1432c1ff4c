#include "connector/bayeux/Services.h"

#include "connector/bayeux/ChannelName.h"

namespace connector::bayeux {

void Services::add(const std::string& channel, HandlerPtr handler)
{
    std::lock_guard lock(mutex_);
    handlers_[channel].push_back(std::move(handler));
}

void Services::remove(const std::string& channel, const HandlerPtr& handler)
{
    std::lock_guard lock(mutex_);
    const auto found = handlers_.find(channel);
    if (found == handlers_.end())
        return;
    std::erase(found->second, handler);
    if (found->second.empty())
        handlers_.erase(found);
}

Services::HandlerPtr Services::find(const std::string& channel) const
{
    auto names = patternsOf(channel);
    names.insert(names.begin(), channel);
    std::lock_guard lock(mutex_);
    for (const auto& name : names) {
        if (const auto found = handlers_.find(name); found != handlers_.end())
            return found->second.back();
    }
    return nullptr;
}

} // namespace connector::bayeux
