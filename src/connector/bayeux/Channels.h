#pragma once

#include <atomic>
#include <functional>
#include <map>
#include <optional>
#include <shared_mutex>
#include <unordered_map>

#include "connector/bayeux/Receiver.h"

namespace connector::bayeux {

/// Who subscribed to what: names and patterns, the options of channels, and the events they retain. Threads: any.
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

    /// The receivers of what is published on a channel, each once, null for none; keeps `event` when the channel
    /// retains.
    std::shared_ptr<const Receivers> publish(const EventPtr& event);

    /// The same without publishing anything.
    std::shared_ptr<const Receivers> receivers(const std::string& channel);

    bool hasReceivers(const std::string& channel) const;

    /// Answers whether that made the channel.
    bool setOptions(const std::string& channel, const ChannelOptions& options);
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
        EventPtr retained;
    };
    using Lists = std::vector<std::shared_ptr<const Receivers>>;

    std::vector<std::string> patternsFor(const std::string& channel) const;
    bool collect(const std::string& channel, const std::vector<std::string>& patterns, Lists& lists) const;
    Lists rebuild(const std::string& channel, const std::vector<std::string>& patterns);
    bool drop(const std::string& name, Receiver& receiver);

    // Taken before mutex_. What is retained changes, and is offered, with this held, so that no subscriber gets an old
    // event after a newer one.
    mutable std::mutex retainMutex_;
    mutable std::shared_mutex mutex_;
    std::unordered_map<std::string, Channel> channels_;
    std::atomic<std::size_t> retaining_{0}; ///< channels that retain
    std::atomic<std::size_t> patterns_{0};  ///< names in channels_ that are patterns
    std::atomic<std::size_t> subscriptions_{0};
};

} // namespace connector::bayeux
