#include "connector/bayeux/Channels.h"

#include <unordered_set>

#include "connector/bayeux/ChannelName.h"
#include "connector/bayeux/Session.h"

namespace connector::bayeux {

namespace {

/// More than one subscription of a session may match.
std::shared_ptr<const Channels::Receivers> united(const std::vector<std::shared_ptr<const Channels::Receivers>>& lists)
{
    if (lists.size() <= 1)
        return lists.empty() ? nullptr : lists.front();
    Channels::Receivers receivers;
    std::unordered_set<const Receiver*> seen;
    for (const auto& list : lists) {
        for (const auto& receiver : *list) {
            if (seen.insert(receiver.get()).second)
                receivers.push_back(receiver);
        }
    }
    return std::make_shared<const Channels::Receivers>(std::move(receivers));
}

} // namespace

Channels::Addition Channels::add(const std::string& name, const std::shared_ptr<Receiver>& receiver, Burst& burst)
{
    Addition addition;
    const auto session = receiver->session();
    const bool isSession = session != nullptr;
    std::unique_lock retaining(retainMutex_, std::defer_lock);
    if (retaining_ > 0)
        retaining.lock();
    {
        std::lock_guard lock(mutex_);
        auto found = channels_.find(name);
        if (receiver->closed_)
            return {Added::receiverIsClosed, false, {}};
        if (found != channels_.end() && found->second.members.contains(receiver.get()))
            return {Added::already, false, {}};
        if (isSession && receiver->subscriptions_.size() >= burst.limits.subscriptions)
            return {Added::tooManySubscriptions, false, {}};
        if (found == channels_.end()) {
            if (isSession && channels_.size() >= burst.limits.channels)
                return {Added::tooManyChannels, false, {}};
            found = channels_.emplace(name, Channel()).first;
            addition.createdChannel = true;
            patterns_ += isPattern(name);
        }
        found->second.members.emplace(receiver.get(), receiver);
        found->second.snapshot.reset();
        receiver->subscriptions_.insert(name);
        subscriptions_ += isSession;
    }
    if (retaining)
        addition.retained = retainedFor(name, session);
    if (isSession) {
        for (const auto& event : std::exchange(addition.retained, {}))
            receiver->receive(Publication(event), burst);
    }
    return addition;
}

/// With retainMutex_ held; of those the ones that the session may see.
std::vector<EventPtr> Channels::retainedFor(const std::string& name, const std::shared_ptr<Session>& session) const
{
    std::vector<EventPtr> events;
    const auto offer = [&](const EventPtr& event) {
        if (!session || rules_.of(event->channel()).maySubscribe(session->publicId()))
            events.push_back(event);
    };
    if (isPattern(name)) {
        for (const auto& event : retained_.all()) {
            if (covers(name, event->channel()))
                offer(event);
        }
    } else if (const auto event = retained_.find(name)) {
        offer(event);
    }
    return events;
}

/// Answers whether the channel went with it.
bool Channels::drop(const std::string& name, Receiver& receiver)
{
    const auto found = channels_.find(name);
    if (found == channels_.end() || found->second.members.erase(&receiver) == 0)
        return false;
    found->second.snapshot.reset();
    subscriptions_ -= receiver.session() != nullptr;
    if (!found->second.members.empty() || found->second.options)
        return false;
    channels_.erase(found);
    patterns_ -= isPattern(name);
    return true;
}

Channels::Removal Channels::remove(const std::string& name, Receiver& receiver)
{
    std::lock_guard lock(mutex_);
    Removal removal;
    removal.removed = receiver.subscriptions_.erase(name) > 0;
    if (removal.removed)
        removal.removedChannel = drop(name, receiver);
    return removal;
}

std::vector<std::pair<std::string, bool>> Channels::close(Receiver& receiver)
{
    std::vector<std::pair<std::string, bool>> ended;
    std::lock_guard lock(mutex_);
    receiver.closed_ = true;
    for (const auto& name : std::exchange(receiver.subscriptions_, {}))
        ended.emplace_back(name, drop(name, receiver));
    return ended;
}

/// The patterns that may be subscribed and match.
std::vector<std::string> Channels::patternsFor(const std::string& channel) const
{
    return patterns_ > 0 ? patternsOf(channel) : std::vector<std::string>();
}

/// False when a list has to be made anew, which takes the exclusive lock.
bool Channels::collect(const std::string& channel, const std::vector<std::string>& patterns, Lists& lists) const
{
    const auto append = [&](const std::string& name) {
        const auto found = channels_.find(name);
        if (found == channels_.end() || found->second.members.empty())
            return true;
        if (!found->second.snapshot)
            return false;
        lists.push_back(found->second.snapshot);
        return true;
    };
    return append(channel) && std::all_of(patterns.begin(), patterns.end(), append);
}

Channels::Lists Channels::rebuild(const std::string& channel, const std::vector<std::string>& patterns)
{
    const auto refresh = [&](const std::string& name) {
        const auto found = channels_.find(name);
        if (found == channels_.end() || found->second.snapshot)
            return;
        Receivers members;
        members.reserve(found->second.members.size());
        for (const auto& [key, member] : found->second.members)
            members.push_back(member);
        found->second.snapshot = std::make_shared<const Receivers>(std::move(members));
    };
    refresh(channel);
    std::for_each(patterns.begin(), patterns.end(), refresh);
    Lists lists;
    collect(channel, patterns, lists);
    return lists;
}

Channels::Published Channels::publish(const EventPtr& event, bool retain, std::size_t maxRetainedBytes)
{
    Published published;
    const auto patterns = patternsFor(event->channel());
    Lists lists;
    bool done = false;
    bool retains = retain;
    {
        std::shared_lock lock(mutex_);
        const auto found = channels_.find(event->channel());
        retains = retains || (found != channels_.end() && found->second.options && found->second.options->retain);
        done = !retains && collect(event->channel(), patterns, lists);
    }
    if (!done) {
        std::unique_lock retaining(retainMutex_, std::defer_lock);
        if (retains) {
            retaining.lock();
            // Who ended that meanwhile has let go of what was retained.
            if (options(event->channel()).retain || rules_.of(event->channel()).retain())
                published.droppedRetained = retained_.keep(event, maxRetainedBytes);
        }
        std::lock_guard lock(mutex_);
        lists = rebuild(event->channel(), patterns);
    }
    published.receivers = united(lists);
    return published;
}

std::shared_ptr<const Channels::Receivers> Channels::receivers(const std::string& channel)
{
    const auto patterns = patternsFor(channel);
    Lists lists;
    {
        std::shared_lock lock(mutex_);
        if (collect(channel, patterns, lists))
            return united(lists);
    }
    std::lock_guard lock(mutex_);
    return united(rebuild(channel, patterns));
}

bool Channels::hasReceivers(const std::string& channel) const
{
    const auto hasMembers = [this](const std::string& name) {
        const auto found = channels_.find(name);
        return found != channels_.end() && !found->second.members.empty();
    };
    std::shared_lock lock(mutex_);
    if (channels_.empty())
        return false;
    const auto patterns = patternsFor(channel);
    return hasMembers(channel) || std::any_of(patterns.begin(), patterns.end(), hasMembers);
}

bool Channels::setOptions(const std::string& channel, const ChannelOptions& options)
{
    std::lock_guard retaining(retainMutex_);
    const bool retainedByRule = rules_.of(channel).retain();
    std::lock_guard lock(mutex_);
    const auto [entry, added] = channels_.try_emplace(channel);
    auto& state = entry->second;
    retaining_ -= state.options && state.options->retain;
    retaining_ += options.retain;
    state.options = options;
    if (!options.retain && !retainedByRule)
        retained_.forget(channel);
    return added;
}

void Channels::addRule(const std::string& name, const ChannelRules::RulePtr& rule)
{
    // Before the first event can be retained by it.
    retaining_ += rule->retain;
    rules_.add(name, rule);
}

void Channels::removeRule(const std::string& name, const ChannelRules::RulePtr& rule)
{
    rules_.remove(name, rule);
    if (!rule->retain)
        return;
    std::lock_guard retaining(retainMutex_);
    retained_.forgetUnless(
        [this](const std::string& channel) { return options(channel).retain || rules_.of(channel).retain(); });
    --retaining_;
}

std::optional<ChannelOptions> Channels::find(const std::string& channel) const
{
    std::shared_lock lock(mutex_);
    const auto found = channels_.find(channel);
    return found == channels_.end() ? std::nullopt : std::optional(found->second.options.value_or(ChannelOptions()));
}

Channels::Receivers Channels::subscribers(const std::string& channel) const
{
    std::shared_lock lock(mutex_);
    Receivers receivers;
    if (const auto found = channels_.find(channel); found != channels_.end()) {
        for (const auto& [key, member] : found->second.members)
            receivers.push_back(member);
    }
    return receivers;
}

std::vector<std::string> Channels::subscriptionsOf(const Receiver& receiver) const
{
    std::shared_lock lock(mutex_);
    return {receiver.subscriptions_.begin(), receiver.subscriptions_.end()};
}

std::size_t Channels::size() const
{
    std::shared_lock lock(mutex_);
    return channels_.size();
}

} // namespace connector::bayeux
