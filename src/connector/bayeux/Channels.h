#pragma once

#include <atomic>
#include <functional>
#include <map>
#include <optional>
#include <shared_mutex>
#include <unordered_map>

#include "connector/bayeux/ChannelRules.h"
#include "connector/bayeux/Receiver.h"
#include "connector/bayeux/RetainedEvents.h"

namespace connector::bayeux {

/// Who subscribed to what: names and patterns, the options and rules of channels, and the events they retain. Threads:
/// any.
class Channels
{
public:
    using Receivers = std::vector<std::shared_ptr<Receiver>>;

    enum class Added
    {
        yes,
        already,
        receiverIsClosed,
        tooManyChannels,
        tooManySubscriptions
    };
    struct Addition
    {
        Added outcome = Added::yes;
        bool createdChannel = false;
        std::vector<EventPtr> retained; ///< what the new subscriber has not been offered yet
    };

    /// A session is offered what matching channels retain before anything that is published later; the caller does it
    /// for others.
    Addition add(const std::string& name, const std::shared_ptr<Receiver>& receiver, Burst& burst);

    struct Removal
    {
        bool removed = false;
        bool removedChannel = false;
    };
    Removal remove(const std::string& name, Receiver& receiver);
    /// Ends all its subscriptions for good; each with whether its channel went too.
    std::vector<std::pair<std::string, bool>> close(Receiver& receiver);

    struct Published
    {
        std::shared_ptr<const Receivers> receivers; ///< each once; null for none
        std::size_t droppedRetained = 0;
    };
    /// Keeps `event` when the channel retains, or `retain` says so; at most so many bytes of all channels.
    Published publish(const EventPtr& event, bool retain, std::size_t maxRetainedBytes);

    /// Those of `publish`, without publishing anything.
    std::shared_ptr<const Receivers> receivers(const std::string& channel);

    bool hasReceivers(const std::string& channel) const;

    /// Answers whether that made the channel.
    bool setOptions(const std::string& channel, const ChannelOptions& options);
    void addRule(const std::string& name, const ChannelRules::RulePtr& rule);
    void removeRule(const std::string& name, const ChannelRules::RulePtr& rule);
    const ChannelRules& rules() const noexcept { return rules_; }
    /// Nullopt when there is no such channel.
    std::optional<ChannelOptions> find(const std::string& channel) const;
    ChannelOptions options(const std::string& channel) const { return find(channel).value_or(ChannelOptions()); }
    Receivers subscribers(const std::string& channel) const;
    std::vector<std::string> subscriptionsOf(const Receiver& receiver) const;
    std::size_t size() const;
    /// Of sessions.
    std::size_t subscriptions() const noexcept { return subscriptions_.load(std::memory_order_relaxed); }

private:
    struct Channel
    {
        std::unordered_map<Receiver*, std::shared_ptr<Receiver>> members;
        std::shared_ptr<const Receivers> snapshot; ///< of the members; null when they changed
        std::optional<ChannelOptions> options;
    };
    using Lists = std::vector<std::shared_ptr<const Receivers>>;

    std::vector<std::string> patternsFor(const std::string& channel) const;
    bool collect(const std::string& channel, const std::vector<std::string>& patterns, Lists& lists) const;
    Lists rebuild(const std::string& channel, const std::vector<std::string>& patterns);
    bool drop(const std::string& name, Receiver& receiver);
    std::vector<EventPtr> retainedFor(const std::string& name, const std::shared_ptr<Session>& session) const;

    ChannelRules rules_;
    // Taken before mutex_. What is retained changes, and is offered, with this held, so that no subscriber gets an old
    // event after a newer one.
    mutable std::mutex retainMutex_;
    RetainedEvents retained_; ///< guarded by retainMutex_
    mutable std::shared_mutex mutex_;
    std::unordered_map<std::string, Channel> channels_;
    std::atomic<std::size_t> retaining_{0}; ///< channels and rules that retain
    std::atomic<std::size_t> patterns_{0};  ///< names in channels_ that are patterns
    std::atomic<std::size_t> subscriptions_{0};
};

} // namespace connector::bayeux
