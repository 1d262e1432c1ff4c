#include "connector/bayeux/Reservations.h"

#include <algorithm>
#include <mutex>

#include "connector/bayeux/ChannelName.h"

namespace connector::bayeux {

void Reservations::add(const std::string& name)
{
    std::lock_guard lock(mutex_);
    names_.push_back(name);
}

void Reservations::remove(const std::string& name)
{
    std::lock_guard lock(mutex_);
    if (const auto found = std::find(names_.begin(), names_.end(), name); found != names_.end())
        names_.erase(found);
}

bool Reservations::covers(std::string_view channel) const
{
    std::shared_lock lock(mutex_);
    return std::any_of(names_.begin(), names_.end(), [&](const auto& name) { return bayeux::covers(name, channel); });
}

} // namespace connector::bayeux
