#include "connector/shadow_files/Behaviors.h"

#include <algorithm>
#include <stdexcept>

namespace connector::shadow_files {

BehaviorsImpl::BehaviorsImpl() = default;
BehaviorsImpl::~BehaviorsImpl() = default;

std::optional<std::string> BehaviorsImpl::getBehavior(const std::string& clientType, const std::string& name) const
{
    std::lock_guard lock(mutex_);
    for (auto push = pushed_.rbegin(); push != pushed_.rend(); ++push) {
        if (push->clientType != clientType)
            continue;
        const auto& set = sets_.at(push->set);
        if (const auto found = set.find(name); found != set.end())
            return found->second;
    }
    return std::nullopt;
}

void BehaviorsImpl::registerBehaviorSet(const std::string& set, BehaviorSet behaviors)
{
    std::size_t bytes = 0;
    for (const auto& [name, text] : behaviors)
        bytes += name.size() + text.size();
    if (bytes > kMaxBytesOfSet)
        throw std::length_error("The behaviour set \"" + set + "\" has " + std::to_string(bytes) +
                                " bytes of text, more than " + std::to_string(kMaxBytesOfSet) + ".");
    std::lock_guard lock(mutex_);
    if (sets_.size() >= kMaxSets && !sets_.contains(set))
        throw std::length_error("There is no room for the behaviour set \"" + set + "\" besides " +
                                std::to_string(kMaxSets) + " others.");
    sets_.insert_or_assign(set, std::move(behaviors));
}

void BehaviorsImpl::unregisterBehaviorSet(const std::string& set)
{
    std::lock_guard lock(mutex_);
    std::erase_if(pushed_, [&](const Push& push) { return push.set == set; });
    sets_.erase(set);
}

void BehaviorsImpl::pushBehaviorSet(const std::string& clientType, const std::string& set)
{
    std::lock_guard lock(mutex_);
    if (!sets_.contains(set))
        throw std::invalid_argument("There is no behaviour set \"" + set + "\".");
    if (pushed_.size() >= kMaxPushed)
        throw std::length_error("The behaviour set \"" + set + "\" cannot be pushed: " + std::to_string(kMaxPushed) +
                                " are pushed already.");
    pushed_.push_back({clientType, set});
}

void BehaviorsImpl::removeBehaviorSet(const std::string& clientType, const std::string& set)
{
    std::lock_guard lock(mutex_);
    const auto latest = std::find_if(pushed_.rbegin(), pushed_.rend(), [&](const Push& push) {
        return push.clientType == clientType && push.set == set;
    });
    if (latest != pushed_.rend())
        pushed_.erase(std::next(latest).base());
}

} // namespace connector::shadow_files
