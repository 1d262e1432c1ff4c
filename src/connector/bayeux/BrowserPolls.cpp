#include "connector/bayeux/BrowserPolls.h"

namespace connector::bayeux {

std::shared_ptr<void> BrowserPolls::enter(const std::string& httpSessionId, unsigned maximum)
{
    // Made first: nothing may fail once it is counted.
    auto name = std::make_shared<std::string>(httpSessionId);
    std::lock_guard lock(mutex_);
    auto& held = held_[httpSessionId];
    if (held >= maximum) {
        if (held == 0)
            held_.erase(httpSessionId);
        return nullptr;
    }
    ++held;
    return std::shared_ptr<void>(name.get(), [name, weak = weak_from_this()](void*) {
        if (const auto self = weak.lock())
            self->leave(*name);
    });
}

void BrowserPolls::leave(const std::string& httpSessionId)
{
    std::lock_guard lock(mutex_);
    if (const auto found = held_.find(httpSessionId); found != held_.end() && --found->second == 0)
        held_.erase(found);
}

} // namespace connector::bayeux
