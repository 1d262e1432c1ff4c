#pragma once

#include <atomic>
#include <condition_variable>
#include <mutex>

#include "connector/bayeux/BrowserPolls.h"
#include "connector/bayeux/DueSessions.h"
#include "connector/bayeux/EventQueue.h"
#include "connector/bayeux/Receiver.h"
#include "connector/bayeux/Replies.h"
#include "connector/bayeux/SessionSeries.h"

namespace connector::bayeux {

class Core;

/// A remote client: its queue, the connect that waits, the WebSocket that it uses. Threads: any. Its lock is a leaf but
/// for a sink's `send` and `queuedBytes` and the order of what is due; promises are fulfilled without it.
class Session final : public BayeuxSession, public Receiver, public std::enable_shared_from_this<Session>
{
public:
    using Clock = EventQueue::Clock;
    using Sink = std::shared_ptr<BayeuxChannelSink>;
    using SendWhen = http::SendWhen;

    /// `polls` counts its held connects; `due` is told when `sweep` has something to do.
    Session(std::weak_ptr<Core> core, std::shared_ptr<BrowserPolls> polls, std::shared_ptr<DueSessions> due,
            const BayeuxOrigin& origin, bool acknowledges);
    ~Session() override;
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    const std::string& id() const noexcept override { return id_; }
    bool isLocal() const noexcept override { return false; }
    const std::string& httpSessionId() const noexcept override { return httpSessionId_; }
    bool deliver(EventPtr event) override { return send(event, SendWhen::soon); }
    bool answer(EventPtr event) override { return send(event, SendWhen::now); }
    bool hasRoom() const override;
    std::shared_ptr<BayeuxSeries> openSeries(const std::string& channel, bool again) override;
    void disconnect() override;
    bool isOver() const override;
    void receive(const Publication& publication, Burst& burst) override
    {
        receive(publication.event(), burst, SendWhen::soon);
    }
    std::shared_ptr<Session> session() override { return shared_from_this(); }

    const std::string& publicId() const noexcept override { return publicId_; }
    /// Without its subscriptions.
    BayeuxSessionInfo describe() const;
    bool acknowledges() const noexcept { return acknowledges_; }

    /// Whether a message from there may speak for this session.
    bool belongsTo(const BayeuxOrigin& origin, bool isConnect) const;
    bool hasEvents() const;
    /// Its client has no WebSocket and no connect that waits, and will not be back in a moment as one between two
    /// polls.
    bool isAway() const;
    /// From now on events go there.
    void use(const Sink& sink, const BayeuxLimits& limits);
    void unuse(const BayeuxChannelSink& sink, const BayeuxLimits& limits);

    struct Connect
    {
        std::string id; ///< JSON text; "" without one
        std::optional<std::chrono::milliseconds> timeout;
        std::optional<std::uint64_t> acknowledged;
        bool alone = true; ///< the only message of its request
    };
    struct Connected
    {
        bool isOver = false;
        bool isHeld = false;
        std::string text; ///< what to answer, without brackets; "" when it went through the sink
        std::uint64_t delivered = 0;
        Future<std::string> answer; ///< of a connect that is held without a WebSocket
    };
    Connected connect(const Connect& request, const BayeuxOrigin& origin, const BayeuxLimits& limits);

    /// What waits for a client of long polling, without brackets, to go along with a reply that is sent at once: that
    /// spares waking its held connect. "" for nothing, and where events have to keep to one way: with acknowledgement,
    /// and while a series is open, since two replies may arrive in any order.
    std::string takeAlong(const BayeuxLimits& limits, std::uint64_t& delivered);

    /// Answers the held connect when there is a reason to.
    void release(const BayeuxLimits& limits, std::uint64_t& delivered);
    /// How long somebody waits, for one session or several in turn.
    struct Patience
    {
        Clock::time_point until;
        const std::function<bool()>& goOn; ///< may be empty; false ends the wait
    };
    /// More than half of what may be queued for the client is taken, and there is hope that it reads on: it is there,
    /// and has moved since it was waited for in vain.
    bool isBehind(const BayeuxLimits& limits);
    /// Waits until that half is free. False when `goOn` said so. Not on a thread that serves clients.
    bool waitForRoom(const Patience& patience, const BayeuxLimits& limits);
    /// Bytes that wait for the client.
    std::size_t backlog() const;
    /// For one that need not be waited for yet, after a whole wait for others: it stands still if it did not read on.
    void noteProgress(std::size_t backlogBefore);
    /// Ends it once: false when it was over. A held connect is answered with the advice; "none" counts as a success.
    bool end(Reconnect reconnect, const BayeuxLimits& limits, bool closeSink);

    /// For one that `DueSessions::take` gave. Answers connects that were held, and sends lazy events that waited, until
    /// `now + period`; true when the session has expired.
    bool sweep(Clock::time_point now, std::chrono::milliseconds period, const BayeuxLimits& limits,
               std::uint64_t& delivered);

private:
    struct Held
    {
        std::string id;
        Clock::time_point deadline;
        Promise<std::string> promise; ///< unless there is a sink
        Sink sink;
        std::shared_ptr<void> poll;
        std::uint64_t number;
    };
    using Lock = std::unique_lock<std::mutex>;

    friend class SessionSeries;

    bool send(const EventPtr& event, SendWhen when);
    void receive(const EventPtr& event, Burst& burst, SendWhen when);
    void receive(Lock& lock, const EventPtr& event, Burst& burst, SendWhen when, const SessionSeries* series);
    bool isCrowded(const BayeuxLimits& limits) const;
    bool deliverIn(const SessionSeries& series, const EventPtr& event);
    bool hasRoomFor(const SessionSeries& series) const;
    void close(SessionSeries& series);
    void forget(const SessionSeries& series);
    void loseSeries(const std::function<bool(const SessionSeries&)>& which);
    void dropEvents(const std::string& channel);
    bool pushesToSink() const noexcept { return sink_ && !acknowledges_; }
    Clock::time_point expectedUntil(const BayeuxLimits& limits) const;
    std::size_t backlogLocked() const;
    bool standsStill();
    bool waitOnce(Lock& lock, std::chrono::milliseconds time, const BayeuxLimits& limits);
    void setSink(Sink sink);
    void flushToSink(const BayeuxLimits& limits, std::uint64_t& delivered);
    void dropSink();
    static void answerSuperseded(std::optional<Held> held, const std::string& clientId);
    Future<std::string> hold(const Connect& request, const BayeuxOrigin& origin, Clock::time_point deadline,
                             std::shared_ptr<void> poll);
    std::string answerNow(const Connect& request, const Sink& sink, const std::string& advice,
                          std::uint64_t& delivered);
    void pump(Lock& lock, const BayeuxLimits& limits, Clock::time_point now, std::uint64_t& delivered);
    std::string reply(const std::string& id, const std::string& advice, const EventQueue::Events& events);
    std::string changedAdvice(std::string advice);
    void cancelled(std::uint64_t number);
    void touch();
    void updateDue(const BayeuxLimits& limits);
    void noteDue(Clock::time_point due);

    const std::weak_ptr<Core> core_;
    const std::shared_ptr<BrowserPolls> polls_;
    const std::shared_ptr<DueSessions> due_;
    const std::string id_;
    const std::string publicId_;
    const std::string httpSessionId_;
    const std::string peerAddress_;
    const bool acknowledges_;

    mutable std::mutex mutex_;
    EventQueue queue_;
    std::optional<Held> held_;
    std::uint64_t lastHeld_ = 0;
    Sink sink_;
    std::atomic<const BayeuxChannelSink*> sinkInUse_{nullptr}; ///< sink_, to be compared without the lock
    std::string advice_;                                       ///< what the client was told last
    Clock::time_point lastReply_ = Clock::now();
    std::vector<SessionSeries*> series_;        ///< take themselves out when they die
    std::vector<std::string> droppedMeanwhile_; ///< channels whose events are not to come back while `delivering_`
    std::uint64_t connects_ = 0;                ///< by long polling
    bool connected_ = false;
    bool delivering_ = false; ///< somebody fulfils a promise, and looks again when that is done
    bool inBurst_ = false;
    bool over_ = false;
    bool lost_ = false;       ///< the connection broke, and there is no other yet
    std::size_t stillAt_ = 0; ///< bytes that waited when it was seen not to read on; 0: it moves
    unsigned waiting_ = 0;    ///< who waits for room
    std::condition_variable room_;
    Clock::time_point notedDue_ = Clock::time_point::max(); ///< as `due_` has it; the true one may be later
};

} // namespace connector::bayeux
