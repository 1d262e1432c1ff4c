#pragma once

#include "connector/bayeux/Channels.h"
#include "connector/bayeux/Reservations.h"
#include "connector/bayeux/SessionTable.h"

namespace connector::bayeux {

class LocalSession;

/// What the protocol and the server's functions have in common: sessions, channels, policy, listeners. Calls out
/// without a lock. Threads: any.
class Core : public std::enable_shared_from_this<Core>
{
public:
    Core();

    BayeuxLimits limits() const;
    void setLimits(const BayeuxLimits& limits);
    std::shared_ptr<BayeuxSecurityPolicy> policy() const;
    void setPolicy(std::shared_ptr<BayeuxSecurityPolicy> policy, bool recheck);
    /// What the policy answers; a policy that throws refuses.
    std::string ask(const std::function<std::string(BayeuxSecurityPolicy&)>& question) const;

    Channels& channels() noexcept { return channels_; }
    Reservations& reservations() noexcept { return reservations_; }
    SessionTable& sessions() noexcept { return sessions_; }
    const SessionTable& sessions() const noexcept { return sessions_; }

    /// A session that nobody knows yet.
    std::shared_ptr<Session> makeSession(const BayeuxOrigin& origin, bool acknowledges);
    SessionTable::Added admit(const std::shared_ptr<Session>& session);
    void bind(const std::shared_ptr<Session>& session, const Session::Sink& sink);
    void webSocketClosed(const Session::Sink& sink);

    Channels::Added subscribe(const std::shared_ptr<Session>& session, const std::string& channel, Burst& burst);
    void unsubscribe(const std::shared_ptr<Session>& session, const std::string& channel, Burst& burst);
    void addFunction(const std::string& channel, const std::shared_ptr<Receiver>& receiver);
    void removeFunction(const std::string& channel, Receiver& receiver);
    void setOptions(const std::string& channel, const ChannelOptions& options);

    /// Whether events of the channel wait for company; `known`: what is set for it, when there is one.
    bool isLazy(const std::string& channel, const std::optional<ChannelOptions>& known) const
    {
        return (known && known->lazy) || channels_.rules().of(channel).lazy();
    }
    void publish(const Publication& publication, Burst& burst);
    void waitForRoom(const std::string& channel, const Session::Patience& patience);
    /// Answers the connects that have something to take, ends the sessions that did not keep up.
    void finish(Burst& burst);

    enum class End
    {
        goodbye,
        timedOut,
        kicked,
        overflowed
    };
    /// False when it was over already.
    bool end(const std::shared_ptr<Session>& session, End cause);
    void kick(const std::shared_ptr<Session>& session) { end(session, End::kicked); }

    std::uint64_t addListener(std::shared_ptr<BayeuxListener> listener);
    void removeListener(std::uint64_t number);
    /// Called every `period`; what becomes due before the next call is done now, so that no connect is held too long.
    void sweep(std::chrono::milliseconds period);
    /// Ends all sessions.
    void stop();
    BayeuxCounters counters() const;

    void addLocal(const std::shared_ptr<LocalSession>& session);
    void removeLocal(const LocalSession& session);
    SessionPtr findAny(const std::string& id) const;
    std::vector<SessionPtr> all() const;

private:
    void tell(const std::function<void(BayeuxListener&)>& news) const;
    void tellPresence(const Session& session, const std::string& channel, const char* what, Burst& burst);
    void left(const std::shared_ptr<Session>& session, const std::vector<std::pair<std::string, bool>>& subscriptions,
              Burst& burst);
    void recheck();

    Channels channels_;
    Reservations reservations_;
    SessionTable sessions_;
    const std::shared_ptr<BrowserPolls> polls_;
    const std::shared_ptr<DueSessions> due_ = std::make_shared<DueSessions>();

    mutable std::mutex mutex_;
    BayeuxLimits limits_;
    std::shared_ptr<BayeuxSecurityPolicy> policy_;
    std::map<std::uint64_t, std::shared_ptr<BayeuxListener>> listeners_;
    std::uint64_t lastListener_ = 0;
    std::map<std::string, std::weak_ptr<LocalSession>> locals_;

    std::atomic<std::uint64_t> published_{0};
    std::atomic<std::uint64_t> delivered_{0};
    std::atomic<std::uint64_t> droppedLazy_{0};
    std::atomic<std::uint64_t> droppedRetained_{0};
    std::atomic<std::uint64_t> overflows_{0};
    std::atomic<std::uint64_t> expired_{0};
};

/// A client that is a part of this process.
class LocalSession final : public BayeuxSession, public std::enable_shared_from_this<LocalSession>
{
public:
    LocalSession(std::weak_ptr<Core> core, std::string name, BayeuxServer::Subscriber deliveries);
    ~LocalSession() override;

    const std::string& id() const noexcept override { return name_; }
    const std::string& publicId() const noexcept override { return name_; }
    bool isLocal() const noexcept override { return true; }
    const std::string& httpSessionId() const noexcept override { return none_; }
    bool deliver(EventPtr event) override;
    bool answer(EventPtr event) override { return deliver(std::move(event)); }
    bool hasRoom() const override { return true; }
    std::shared_ptr<BayeuxSeries> openSeries(const std::string& channel, bool again) override;
    void disconnect() override;
    bool isOver() const override { return over_; }

private:
    const std::weak_ptr<Core> core_;
    const std::string name_;
    const std::string none_;
    FunctionReceiver receiver_;
    std::atomic<bool> over_{false};
};

} // namespace connector::bayeux
