#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <Poco/Dynamic/Var.h>
#include <Poco/JSON/Object.h>

#include "connector/Export.h"
#include "connector/core/Future.h"
#include "connector/http/WebSocket.h"

namespace connector::bayeux {

/// A message as it stands on a channel: built once, whatever the number of its receivers. Immutable, shared.
class CONNECTOR_API BayeuxEvent
{
public:
    /// Throws json::JsonError for data without a JSON form.
    BayeuxEvent(std::string channel, const Poco::Dynamic::Var& data, bool lazy = false);
    /// `json`: one JSON value, taken as it is.
    static std::shared_ptr<const BayeuxEvent> ofText(std::string channel, std::string_view json, bool lazy = false);
    /// `message`: the text of a whole message, with a channel.
    static std::shared_ptr<const BayeuxEvent> ofMessage(std::string channel, std::string_view message);

    const std::string& channel() const noexcept { return channel_; }
    /// As a rule {"channel":…,"data":…}.
    std::string_view text() const noexcept { return std::string_view(*frame_).substr(1, frame_->size() - 2); }
    /// The data as it is written; "" for `ofMessage`.
    std::string_view data() const noexcept { return text().substr(dataAt_, text().size() - dataAt_ - 1); }
    /// The text as an array of one, which all WebSocket receivers share.
    const std::shared_ptr<const std::string>& frame() const noexcept { return frame_; }
    bool isLazy() const noexcept { return lazy_; }

private:
    struct Written
    {};
    struct Whole
    {};
    BayeuxEvent(Written, std::string channel, std::string_view json, bool lazy);
    BayeuxEvent(Whole, std::string channel, std::string_view message);

    std::string channel_;
    std::shared_ptr<const std::string> frame_;
    std::size_t dataAt_ = 0; ///< in `text`
    bool lazy_;
};
using EventPtr = std::shared_ptr<const BayeuxEvent>;

/// The events on one channel for one session whose source numbers and keeps them, so that a client that lost its
/// connection can ask for those that did not arrive. What arrived is unknown once the connection is another one:
/// nothing of the series follows, nor waits for the client any more, until it asks. Threads: any.
class CONNECTOR_API BayeuxSeries
{
public:
    virtual ~BayeuxSeries() = default;
    /// Sends the next one. False when the series is lost.
    virtual bool deliver(EventPtr event) = 0;
    /// As of the session; also true when the series is lost.
    virtual bool hasRoom() const = 0;
    /// The client lost its WebSocket or uses another one, the session is over, or the series was opened again. With the
    /// acknowledgement extension no event is lost with a connection, nor is a series.
    virtual bool isLost() const = 0;
    /// Nobody is there to read it at the moment: the client has neither a WebSocket nor a connect that waits.
    virtual bool isAway() const = 0;
    /// Takes back what still waits for the client.
    virtual void close() = 0;
};

/// A client of the bus, remote or of this process. Threads: any.
class CONNECTOR_API BayeuxSession
{
public:
    virtual ~BayeuxSession() = default;
    /// The clientId of a remote session (a secret of its client); a name for a local one.
    virtual const std::string& id() const noexcept = 0;
    /// How others may know it, presence for one; the name of a local one.
    virtual const std::string& publicId() const noexcept = 0;
    virtual bool isLocal() const noexcept = 0;
    /// The HTTP session it was born in; "" without one.
    virtual const std::string& httpSessionId() const noexcept = 0;
    /// Sends one event to this session only, whether or not it subscribed. False when the session is over, and when its
    /// queue is full, which ends it.
    virtual bool deliver(EventPtr event) = 0;
    /// The same for what its client waits for: where the connection takes it, it is written on the calling thread,
    /// which costs that thread more and the client less. Not for streams.
    virtual bool answer(EventPtr event) = 0;
    /// Whether more than half of what may wait for it is free: who delivers much waits for that.
    virtual bool hasRoom() const = 0;
    /// The one that was open on this channel is lost, and what waits of it dropped. `again`: the client has asked for
    /// it once more; by long polling the events then go to connects that come from now on, since the one that is held
    /// may belong to a connection that is gone.
    virtual std::shared_ptr<BayeuxSeries> openSeries(const std::string& channel, bool again) = 0;
    /// Ends the session; a remote client is told with "reconnect":"none".
    virtual void disconnect() = 0;
    virtual bool isOver() const = 0;
};
using SessionPtr = std::shared_ptr<BayeuxSession>;

/// What came in on a channel, for handlers and listeners.
struct BayeuxMessage
{
    std::string channel;
    Poco::Dynamic::Var data;     ///< a JSON value, with U+FFFD for half a surrogate pair; empty for none
    Poco::JSON::Object::Ptr ext; ///< null for none
    SessionPtr sender;           ///< null when it came from `publish`
    EventPtr event;              ///< with the data as it was written; null for a message to a service
    std::string_view json = {};  ///< of a message to a service: `data` as it was written, during the call; "" for none
    std::string_view id = {};    ///< of a message to a service: JSON text, during the call; "" for none
};

/// Thrown by a service's handler: its sender gets an error with this code and text in place of the acknowledgement.
class CONNECTOR_API ServiceRefusal : public std::runtime_error
{
public:
    ServiceRefusal(unsigned code, const std::string& text);
    ~ServiceRefusal() override;
    unsigned code() const noexcept { return code_; }

private:
    unsigned code_;
};

/// Who may do what. Answers "" for yes, else the reason, which goes to the client ("403:…:reason"). Threads: any; must
/// not block, nor call back into the server.
class CONNECTOR_API BayeuxSecurityPolicy
{
public:
    virtual ~BayeuxSecurityPolicy() = default;
    virtual std::string mayHandshake(const BayeuxSession& session, const Poco::JSON::Object& message);
    /// Before the first subscription of a channel, and before a message to a channel nobody knows.
    virtual std::string mayCreate(const BayeuxSession& session, const std::string& channel);
    virtual std::string maySubscribe(const BayeuxSession& session, const std::string& channel);
    virtual std::string mayPublish(const BayeuxSession& session, const std::string& channel);
};

/// Hears of remote sessions and of channels.
class CONNECTOR_API BayeuxListener
{
public:
    virtual ~BayeuxListener() = default;
    virtual void sessionAdded(const SessionPtr& session) { (void)session; }
    /// `timedOut`: nobody said goodbye.
    virtual void sessionRemoved(const SessionPtr& session, bool timedOut) { (void)session, (void)timedOut; }
    virtual void subscribed(const SessionPtr& session, const std::string& channel) { (void)session, (void)channel; }
    virtual void unsubscribed(const SessionPtr& session, const std::string& channel) { (void)session, (void)channel; }
    virtual void channelAdded(const std::string& channel) { (void)channel; }
    virtual void channelRemoved(const std::string& channel) { (void)channel; }
};

/// What a channel (no pattern) does besides passing messages on. Options make the channel and keep it.
struct ChannelOptions
{
    bool retain = false;              ///< a new subscriber gets the last event at once
    bool presence = false;            ///< joins and leaves are published on "/presence" + channel
    bool lazy = false;                ///< events wait for company, at most `Limits::lazyDelay`
    bool serverPublishesOnly = false; ///< remote clients may not publish
};

/// Some of the remote clients.
struct Audience
{
    bool everybody = true;
    std::set<std::string> publicIds; ///< unless it is everybody: those, by BayeuxSession::publicId

    bool has(const std::string& publicId) const { return everybody || publicIds.contains(publicId); }
};

/// What channels do besides passing messages on, and which remote clients may use them. What this process publishes and
/// subscribes to is not restricted.
struct ChannelRule
{
    bool retain = false;   ///< as in ChannelOptions
    bool presence = false; ///< as in ChannelOptions
    bool lazy = false;     ///< as in ChannelOptions
    Audience publishers;
    Audience subscribers; ///< others get nothing of it by patterns, either
};

struct BayeuxLimits
{
    std::chrono::milliseconds timeout{30'000};     ///< how long a connect is held
    std::chrono::milliseconds interval{0};         ///< what clients wait between connects
    std::chrono::milliseconds maxInterval{60'000}; ///< how long a session lives without a connect
    std::chrono::milliseconds lazyDelay{5'000};
    std::size_t queueMessages = 10'000; ///< of one session
    std::size_t queueBytes = 4u << 20;
    std::size_t messageBytes = 1u << 20; ///< of one request or WebSocket message; see kMostTooLongBytes
    std::size_t sessions = 20'000;
    std::size_t subscriptions = 1'000; ///< of one session
    std::size_t channels = 100'000;
    std::size_t batch = 1'000;             ///< messages in one array
    std::size_t retainedBytes = 64u << 20; ///< of all retained events; beyond it the oldest go
    unsigned pollsOfOneBrowser = 2;        ///< held connects of one HTTP session; more get "multiple-clients" advice
};

/// A remote client, as it may be shown.
struct BayeuxSessionInfo
{
    std::string publicId;
    std::string peerAddress; ///< from where it shook hands
    bool webSocket = false;  ///< has one open
    std::size_t queued = 0;  ///< events that wait for it, with those not acknowledged
    std::vector<std::string> subscriptions;
};

/// Requests and WebSocket messages that are longer than allowed by no more than this are refused message by message;
/// clients repeat for ever what fails below the protocol.
inline constexpr std::size_t kMostTooLongBytes = 4u << 20;

struct BayeuxCounters
{
    std::uint64_t sessions = 0;      ///< now
    std::uint64_t channels = 0;      ///< now
    std::uint64_t subscriptions = 0; ///< now
    std::uint64_t published = 0;
    std::uint64_t delivered = 0; ///< handed to a connection
    std::uint64_t droppedLazy = 0;
    std::uint64_t droppedRetained = 0;
    std::uint64_t overflows = 0; ///< sessions that ended because they read too slowly
    std::uint64_t expired = 0;
};

/// The open WebSocket of a client, as the server sees it: takes events and replies whole, each one text that is a JSON
/// array. Threads: any. `send` and `queuedBytes` are called with a session's lock held, which keeps the order: they
/// must neither block nor call the server.
class CONNECTOR_API BayeuxChannelSink
{
public:
    virtual ~BayeuxChannelSink() = default;
    /// One frame. `frame` is shared by all receivers, so that it is framed once. False when the connection is over or
    /// takes no more.
    virtual bool send(const std::shared_ptr<const std::string>& frame, http::SendWhen when) = 0;
    /// Until it can take a good deal more, or is over; false when that takes longer. Not on an I/O thread.
    virtual bool waitForRoom(std::chrono::milliseconds patience)
    {
        (void)patience;
        return true;
    }
    virtual std::size_t queuedBytes() const = 0;
    /// The server stops.
    virtual void close() = 0;
};

/// One request's or frame's way in.
struct BayeuxOrigin
{
    std::string httpSessionId;                    ///< "" without one
    std::shared_ptr<BayeuxChannelSink> webSocket; ///< null for long polling
    std::string peerAddress;
};

/// How messages to a service channel are served.
struct ServiceOptions
{
    /// The handler answers by `BayeuxSession::answer`, as a rule within a millisecond: on a WebSocket the
    /// acknowledgement waits that long, so that both arrive together.
    bool answersSoon = false;
    /// Serves only what no service without this serves, be it by a pattern.
    bool stepsBack = false;
};

/// A Bayeux 1.0 server: channels, sessions, and the protocol between. Threads: any; callbacks (handlers, listeners,
/// subscribers) are called on the thread that caused them, without a lock held, and must not block.
class CONNECTOR_API BayeuxServer : public std::enable_shared_from_this<BayeuxServer>
{
public:
    using Subscriber = std::function<void(const BayeuxMessage&)>;
    /// What it answers is sent to the sender as the data of a message on the service channel; empty for no answer.
    using ServiceHandler = std::function<Poco::Dynamic::Var(const BayeuxMessage&)>;

    /// Ends what it stands for when it dies; does not wait for a call that is running.
    class CONNECTOR_API Registration
    {
    public:
        Registration() = default;
        explicit Registration(std::function<void()> undo) : undo_(std::move(undo)) {}
        Registration(Registration&& other) noexcept : undo_(std::exchange(other.undo_, nullptr)) {}
        Registration& operator=(Registration&& other) noexcept
        {
            std::swap(undo_, other.undo_);
            return *this;
        }
        ~Registration() { reset(); }
        void reset()
        {
            if (auto undo = std::exchange(undo_, nullptr))
                undo();
        }

    private:
        std::function<void()> undo_;
    };

    virtual ~BayeuxServer() = default;

    /// A request's body or a frame's text. Answers the reply: a JSON array, or "" when a WebSocket client is to get no
    /// reply (yet): its replies may come later through `origin.webSocket`. A long-polling connect is held by the
    /// future, which occupies no thread; cancelling it (the client went away) leaves the queue for the next connect.
    /// Fails with http::HttpFault 400 for what is no JSON array or object.
    virtual Future<std::string> handle(const std::string& body, const BayeuxOrigin& origin) = 0;
    /// The WebSocket closed: sessions that lived on it go on living for maxInterval.
    virtual void webSocketClosed(const std::shared_ptr<BayeuxChannelSink>& webSocket) = 0;

    /// To every subscriber of the channel; throws std::invalid_argument for a pattern, a "/meta" or "/service" channel
    /// and bad names, json::JsonError for data without a JSON form.
    virtual void publish(const std::string& channel, const Poco::Dynamic::Var& data) = 0;
    virtual void publish(EventPtr event) = 0;
    /// `json`: one JSON value, checked and passed on as it is written; json::JsonError for anything else.
    virtual void publishText(const std::string& channel, std::string_view json) = 0;
    /// Declares a channel, or all that a pattern covers, as the system's own: what it says there comes by `publish`.
    /// Remote clients and local sessions are refused while the registration lives, scripts as well. Throws
    /// std::invalid_argument for a "/meta" or "/service" channel and bad names. Nobody can speak on "/presence/…".
    [[nodiscard]] virtual Registration reserve(const std::string& channel) = 0;
    virtual bool isReserved(const std::string& channel) const = 0;
    /// For a publisher that is faster than its subscribers: waits until each remote subscriber of the channel can take
    /// more, at most `patience` for all of them, and not again for one that did not move since, nor for one whose
    /// client is gone. `goOn` (may be empty) is asked every few milliseconds of it, without a lock; false ends the
    /// wait. Not on an I/O thread.
    virtual void waitForRoom(const std::string& channel, std::chrono::milliseconds patience,
                             const std::function<bool()>& goOn) = 0;
    /// In this process: `channel` may be a pattern ("/a/*", "/a/**").
    [[nodiscard]] virtual Registration subscribe(const std::string& channel, Subscriber subscriber) = 0;
    /// For messages that clients send to "/service/…" (a pattern is allowed); without a handler they are refused. The
    /// newest handler of a channel serves it until it goes: a service may be replaced by its successor at any moment.
    [[nodiscard]] virtual Registration handleService(const std::string& channel, ServiceHandler handler,
                                                     const ServiceOptions& options) = 0;
    [[nodiscard]] Registration handleService(const std::string& channel, ServiceHandler handler)
    {
        return handleService(channel, std::move(handler), {});
    }
    /// A session of this process, which others can address by its id: it subscribes with `subscribe`d functions of its
    /// own, publishes under its name, and ends with `disconnect` or when nobody holds it. Throws std::invalid_argument
    /// for a name that is empty or taken.
    virtual SessionPtr openLocalSession(const std::string& name, Subscriber deliveries) = 0;
    /// As `publish`; std::invalid_argument for a reserved channel, too.
    virtual void publishAs(const BayeuxSession& sender, const std::string& channel, const Poco::Dynamic::Var& data) = 0;

    virtual SessionPtr findSession(const std::string& id) const = 0;
    virtual std::vector<SessionPtr> sessions() const = 0;
    /// Of remote clients.
    virtual std::vector<BayeuxSessionInfo> describeSessions() const = 0;
    /// As BayeuxSession::disconnect; false when there is no such remote client.
    virtual bool endSession(const std::string& publicId) = 0;
    /// Subscribers of the channel itself, not of patterns that match it.
    virtual std::vector<SessionPtr> subscribers(const std::string& channel) const = 0;
    /// Whether a session or a function gets what is published on the channel, be it by a pattern. A server that does
    /// not know says yes.
    virtual bool hasReceivers(const std::string& channel) const
    {
        (void)channel;
        return true;
    }

    /// Null sets the default policy: remote clients subscribe and publish anywhere but below /meta; /service goes to
    /// handlers. A change takes effect with the next message; `recheck` also ends subscriptions that it forbids.
    virtual void setPolicy(std::shared_ptr<BayeuxSecurityPolicy> policy, bool recheck = false) = 0;
    virtual void setChannelOptions(const std::string& channel, const ChannelOptions& options) = 0;
    /// For a channel, or all that a pattern matches; service channels too. Rules that match the same channel add up: it
    /// retains when one of them says so, and a client may publish when all of them let it. A rule takes effect at once,
    /// for clients that have subscribed as well. Throws std::invalid_argument for "/meta" channels and bad names.
    [[nodiscard]] virtual Registration addRule(const std::string& channel, const ChannelRule& rule) = 0;
    virtual void setLimits(const BayeuxLimits& limits) = 0;
    virtual BayeuxLimits limits() const = 0;
    [[nodiscard]] virtual Registration addListener(std::shared_ptr<BayeuxListener> listener) = 0;
    virtual BayeuxCounters counters() const = 0;

    /// Starts the sweeping of sessions, which the tick manager drives.
    virtual void start() = 0;
    /// Ends all sessions: held connects are answered ("reconnect":"handshake", so that clients come back to a
    /// successor), WebSockets closed. Requests fail with "unavailable" until `start`.
    virtual void stop() = 0;

    virtual std::shared_ptr<BayeuxServer> getPtr() = 0;
};

} // namespace connector::bayeux
