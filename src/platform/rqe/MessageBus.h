#pragma once

#include <functional>
#include <memory>
#include <string>

#include "platform/Export.h"

namespace rqe {

/// Channels of messages between the host's scripts and whoever else is on the bus. Implemented by the connector.
/// Threads: any.
class VENDRA_PLATFORM_API MessageBus
{
public:
    /// `json`: the message's data, one JSON value. Called on the thread that published; must not block.
    using Receiver = std::function<void(const std::string& channel, const std::string& json)>;

    /// Asked every few milliseconds while something is waited for, on the thread that waits; false ends the wait.
    using GoOn = std::function<bool()>;

    virtual ~MessageBus();
    /// In the name of a script or a client. To all subscribers; waits a moment for those that are behind, not longer
    /// than `goOn` (may be empty) says, unless on a thread that serves them. Throws std::invalid_argument for a channel
    /// that cannot be published to, for a reserved one, and for text that is not JSON.
    virtual void publish(const std::string& channel, const std::string& json, const GoOn& goOn) = 0;
    /// The system's own word, on reserved channels too. Waits for nobody: for news that is rare or merged.
    virtual void tell(const std::string& channel, const std::string& json) = 0;
    /// Whether only the system speaks there. Quick.
    virtual bool isReserved(const std::string& channel) const = 0;
    /// Whether anybody gets what is published there, be it by a pattern. Quick.
    virtual bool hasSubscribers(const std::string& channel) const = 0;
    /// `channel`: a name, or a pattern ("/a/*", "/a/**"). Calling the result ends the subscription. Throws
    /// std::invalid_argument for what is neither.
    virtual std::function<void()> subscribe(const std::string& channel, Receiver receiver) = 0;
};

/// The one bus of this process, which comes and goes with the connector; subscriptions stay. Threads: any.
class VENDRA_PLATFORM_API ProcessBus
{
public:
    /// For the connector; null takes the bus away.
    static void setBus(std::shared_ptr<MessageBus> bus);
    /// Takes the bus away if it is this one.
    static void clearBus(const MessageBus* bus);

    /// As MessageBus::publish; throws std::runtime_error when there is no bus.
    static void publish(const std::string& channel, const std::string& json, const MessageBus::GoOn& goOn = {});
    /// As MessageBus::tell; nothing without a bus.
    static void tell(const std::string& channel, const std::string& json);
    /// False without a bus.
    static bool hasSubscribers(const std::string& channel);
    /// False without a bus.
    static bool isReserved(const std::string& channel);

    /// Ends when it dies. A receiver that is being called meanwhile is not waited for.
    class VENDRA_PLATFORM_API Subscription
    {
    public:
        virtual ~Subscription();
    };
    /// On the bus of now and every later one. Throws as MessageBus::subscribe when there is a bus.
    static std::unique_ptr<Subscription> subscribe(const std::string& channel, MessageBus::Receiver receiver);
};

} // namespace rqe
