#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/Export.h"

namespace rqe {

/// A client's message to a service of a script. It is answered once; one that dies without an answer tells the client
/// so. Threads: any.
class VENDRA_PLATFORM_API ServiceCall
{
public:
    virtual ~ServiceCall();
    virtual const std::string& channel() const noexcept = 0;
    /// The message's data, one JSON value.
    virtual const std::string& json() const noexcept = 0;
    /// The client, by the name that others may know.
    virtual const std::string& session() const noexcept = 0;
    /// `json`: one JSON value. What is none, or more than may wait for a client, fails the call.
    virtual void answer(const std::string& json) = 0;
    /// `kind`: the error's type.
    virtual void fail(const std::string& kind, const std::string& text) = 0;
};

/// What channels do besides passing messages on, and which clients may use them.
struct ChannelRule
{
    using Sessions = std::optional<std::vector<std::string>>; ///< of clients, by `BusSession::id`; without: of all

    bool retain = false;   ///< a new subscriber gets the last message
    bool presence = false; ///< joins and leaves are told on "/presence" and the channel's name
    bool lazy = false;     ///< messages wait for company
    Sessions publishers;
    Sessions subscribers;
};

/// A client of the bus.
struct BusSession
{
    std::string id; ///< which others may know
    std::string address;
    bool webSocket = false;
    std::size_t queued = 0; ///< messages that wait for it
    std::vector<std::string> subscriptions;
};

/// Channels of messages between the host's scripts and whoever else is on the bus. Implemented by the connector.
/// Threads: any.
class VENDRA_PLATFORM_API MessageBus
{
public:
    /// `json`: the message's data, one JSON value. Called on the thread that published; must not block.
    using Receiver = std::function<void(const std::string& channel, const std::string& json)>;
    /// Called on the thread that serves the client; must not block. False when it is too busy, which the client is
    /// told.
    using Server = std::function<bool(std::shared_ptr<ServiceCall> call)>;

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
    /// As subscribe, for what clients send to a channel or pattern below "/service/". The system's own services come
    /// first.
    virtual std::function<void()> serve(const std::string& channel, Server server) = 0;
    /// As subscribe, for a rule, which may also stand for service channels.
    virtual std::function<void()> rule(const std::string& channel, const ChannelRule& rule) = 0;
    /// The clients of other processes.
    virtual std::vector<BusSession> sessions() const = 0;
    /// Sends a client away; false when there is none of that id.
    virtual bool endSession(const std::string& id) = 0;
};

/// The one bus of this process, which comes and goes with the connector; subscriptions, services and rules stay.
/// Threads: any.
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

    /// Empty without a bus.
    static std::vector<BusSession> sessions();
    /// False without a bus.
    static bool endSession(const std::string& id);

    /// A subscription, service or rule. Ends when it dies; who is being called meanwhile is not waited for.
    class VENDRA_PLATFORM_API Subscription
    {
    public:
        virtual ~Subscription();
    };
    /// On the bus of now and every later one. Throws as MessageBus::subscribe when there is a bus.
    static std::unique_ptr<Subscription> subscribe(const std::string& channel, MessageBus::Receiver receiver);
    static std::unique_ptr<Subscription> serve(const std::string& channel, MessageBus::Server server);
    static std::unique_ptr<Subscription> rule(const std::string& channel, const ChannelRule& rule);
};

} // namespace rqe
