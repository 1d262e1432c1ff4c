#include "connector/bayeux/Core.h"

#include "connector/bayeux/ChannelName.h"
#include "connector/common/Log.h"
#include "connector/json/JsonFields.h"

namespace connector::bayeux {

namespace {

constexpr char kSource[] = "connector.bayeux";

} // namespace

Core::Core() : polls_(std::make_shared<BrowserPolls>()), policy_(std::make_shared<BayeuxSecurityPolicy>())
{
    reservations_.add(std::string(kPresencePrefix) + "/**");
}

BayeuxLimits Core::limits() const
{
    std::lock_guard lock(mutex_);
    return limits_;
}

void Core::setLimits(const BayeuxLimits& limits)
{
    std::lock_guard lock(mutex_);
    limits_ = limits;
}

std::shared_ptr<BayeuxSecurityPolicy> Core::policy() const
{
    std::lock_guard lock(mutex_);
    return policy_;
}

void Core::setPolicy(std::shared_ptr<BayeuxSecurityPolicy> policy, bool check)
{
    if (!policy)
        policy = std::make_shared<BayeuxSecurityPolicy>();
    {
        std::lock_guard lock(mutex_);
        policy_.swap(policy);
    }
    if (check)
        recheck();
}

std::string Core::ask(const std::function<std::string(BayeuxSecurityPolicy&)>& question) const
{
    try {
        return question(*policy());
    } catch (const std::exception& error) {
        common::log(kSource, common::LogLevel::error, std::string("The security policy failed: ") + error.what());
        return "The policy failed";
    }
}

void Core::recheck()
{
    Burst burst(limits());
    for (const auto& session : sessions_.all()) {
        for (const auto& channel : channels_.subscriptionsOf(*session)) {
            const auto reason =
                ask([&](BayeuxSecurityPolicy& policy) { return policy.maySubscribe(*session, channel); });
            if (!reason.empty())
                unsubscribe(session, channel, burst);
        }
    }
    finish(burst);
}

std::shared_ptr<Session> Core::makeSession(const BayeuxOrigin& origin, bool acknowledges)
{
    return std::make_shared<Session>(weak_from_this(), polls_, due_, origin, acknowledges);
}

SessionTable::Added Core::admit(const std::shared_ptr<Session>& session)
{
    const auto current = limits();
    // Its time runs from now on: it may never connect.
    std::uint64_t delivered = 0;
    session->release(current, delivered);
    const auto added = sessions_.add(session, current.sessions);
    if (added == SessionTable::Added::yes)
        tell([&](BayeuxListener& listener) { listener.sessionAdded(session); });
    return added;
}

void Core::bind(const std::shared_ptr<Session>& session, const Session::Sink& sink)
{
    if (sessions_.bind(sink, session))
        session->use(sink, limits());
}

void Core::webSocketClosed(const Session::Sink& sink)
{
    if (!sink)
        return;
    const auto current = limits();
    for (const auto& session : sessions_.unbind(sink))
        session->unuse(*sink, current);
}

Channels::Added Core::subscribe(const std::shared_ptr<Session>& session, const std::string& channel, Burst& burst)
{
    const auto addition = channels_.add(channel, session, burst);
    if (addition.outcome != Channels::Added::yes)
        return addition.outcome;
    tell([&](BayeuxListener& listener) {
        if (addition.createdChannel)
            listener.channelAdded(channel);
        listener.subscribed(session, channel);
    });
    tellPresence(*session, channel, "join", burst);
    return addition.outcome;
}

void Core::unsubscribe(const std::shared_ptr<Session>& session, const std::string& channel, Burst& burst)
{
    const auto removal = channels_.remove(channel, *session);
    if (removal.removed)
        left(session, {{channel, removal.removedChannel}}, burst);
}

void Core::left(const std::shared_ptr<Session>& session, const std::vector<std::pair<std::string, bool>>& subscriptions,
                Burst& burst)
{
    for (const auto& [channel, removed] : subscriptions) {
        tell([&, &channel = channel, removed = removed](BayeuxListener& listener) {
            listener.unsubscribed(session, channel);
            if (removed)
                listener.channelRemoved(channel);
        });
        tellPresence(*session, channel, "leave", burst);
    }
}

void Core::tellPresence(const Session& session, const std::string& channel, const char* what, Burst& burst)
{
    if (isPattern(channel) || !(channels_.options(channel).presence || channels_.rules().of(channel).presence()))
        return;
    auto data = json::makeObject();
    data->set("event", std::string(what));
    data->set("session", session.publicId());
    const auto members = channels_.subscribers(channel);
    data->set("subscribers",
              static_cast<Poco::UInt64>(std::count_if(
                  members.begin(), members.end(), [](const auto& member) { return member->session() != nullptr; })));
    publish(Publication(std::make_shared<const BayeuxEvent>(std::string(kPresencePrefix) + channel, data)), burst);
}

void Core::addFunction(const std::string& channel, const std::shared_ptr<Receiver>& receiver)
{
    Burst burst(limits());
    const auto addition = channels_.add(channel, receiver, burst);
    if (addition.createdChannel)
        tell([&](BayeuxListener& listener) { listener.channelAdded(channel); });
    for (const auto& event : addition.retained)
        receiver->receive(Publication(event), burst);
}

void Core::removeFunction(const std::string& channel, Receiver& receiver)
{
    if (channels_.remove(channel, receiver).removedChannel)
        tell([&](BayeuxListener& listener) { listener.channelRemoved(channel); });
}

void Core::setOptions(const std::string& channel, const ChannelOptions& options)
{
    if (channels_.setOptions(channel, options))
        tell([&](BayeuxListener& listener) { listener.channelAdded(channel); });
}

void Core::publish(const Publication& publication, Burst& burst)
{
    published_.fetch_add(1, std::memory_order_relaxed);
    const auto& event = publication.event();
    const auto ruling = channels_.rules().of(event->channel());
    const auto published = channels_.publish(event, ruling.retain(), burst.limits.retainedBytes);
    if (published.droppedRetained > 0)
        droppedRetained_.fetch_add(published.droppedRetained, std::memory_order_relaxed);
    if (!published.receivers)
        return;
    const auto isKeptOut = [&](Receiver& receiver) {
        const auto session = receiver.session();
        return session && !ruling.maySubscribe(session->publicId());
    };
    for (const auto& receiver : *published.receivers) {
        if (!ruling.isRestricted() || !isKeptOut(*receiver))
            receiver->receive(publication, burst);
    }
}

void Core::waitForRoom(const std::string& channel, const Session::Patience& patience)
{
    const auto receivers = channels_.receivers(channel);
    if (!receivers)
        return;
    const auto current = limits();
    std::vector<std::shared_ptr<Session>> behind;
    for (const auto& receiver : *receivers) {
        if (auto session = receiver->session(); session && session->isBehind(current))
            behind.push_back(std::move(session));
    }
    if (behind.empty())
        return;
    // Who stands still, but is not full yet, is not to cost a wait of its own later.
    std::vector<std::pair<std::shared_ptr<Session>, std::size_t>> others;
    for (const auto& receiver : *receivers) {
        if (auto session = receiver->session(); session && session->backlog() > 0)
            others.emplace_back(session, session->backlog());
    }
    for (const auto& session : behind) {
        if (!session->waitForRoom(patience, current))
            return;
    }
    if (Session::Clock::now() < patience.until)
        return;
    for (const auto& [session, backlogBefore] : others)
        session->noteProgress(backlogBefore);
}

void Core::finish(Burst& burst)
{
    for (const auto& session : std::exchange(burst.released, {}))
        session->release(burst.limits, burst.delivered);
    delivered_.fetch_add(std::exchange(burst.delivered, 0), std::memory_order_relaxed);
    droppedLazy_.fetch_add(std::exchange(burst.droppedLazy, 0), std::memory_order_relaxed);
    for (const auto& session : std::exchange(burst.overflowed, {}))
        end(session, End::overflowed);
}

bool Core::end(const std::shared_ptr<Session>& session, End cause)
{
    const auto current = limits();
    const bool forGood = cause == End::goodbye || cause == End::kicked;
    // Before the client can hear of it and ask again.
    if (cause == End::kicked && !session->isOver())
        sessions_.ban(session->id());
    if (!session->end(forGood ? Reconnect::none : Reconnect::handshake, current, false))
        return false;
    // In this order: whoever stops the server finds all that has subscriptions.
    const auto subscriptions = channels_.close(*session);
    sessions_.remove(*session);
    if (cause == End::overflowed)
        ++overflows_;
    if (cause == End::timedOut)
        ++expired_;
    Burst burst(current);
    left(session, subscriptions, burst);
    tell([&](BayeuxListener& listener) { listener.sessionRemoved(session, cause == End::timedOut); });
    finish(burst);
    return true;
}

std::uint64_t Core::addListener(std::shared_ptr<BayeuxListener> listener)
{
    std::lock_guard lock(mutex_);
    listeners_.emplace(++lastListener_, std::move(listener));
    return lastListener_;
}

void Core::removeListener(std::uint64_t number)
{
    std::shared_ptr<BayeuxListener> dropped;
    std::lock_guard lock(mutex_);
    if (const auto found = listeners_.find(number); found != listeners_.end()) {
        dropped = std::move(found->second);
        listeners_.erase(found);
    }
}

void Core::tell(const std::function<void(BayeuxListener&)>& news) const
{
    std::vector<std::shared_ptr<BayeuxListener>> listeners;
    {
        std::lock_guard lock(mutex_);
        for (const auto& [number, listener] : listeners_)
            listeners.push_back(listener);
    }
    for (const auto& listener : listeners) {
        try {
            news(*listener);
        } catch (const std::exception& error) {
            common::log(kSource, common::LogLevel::error, std::string("A listener failed: ") + error.what());
        }
    }
}

void Core::sweep(std::chrono::milliseconds period)
{
    const auto current = limits();
    const auto now = Session::Clock::now();
    std::uint64_t delivered = 0;
    for (const auto& session : due_->take(now + period)) {
        if (session->sweep(now, period, current, delivered))
            end(session, End::timedOut);
    }
    delivered_.fetch_add(delivered, std::memory_order_relaxed);
}

void Core::stop()
{
    const auto current = limits();
    for (const auto& session : sessions_.close()) {
        // Another thread may be ending it; each tells of what it did.
        const bool ended = session->end(Reconnect::handshake, current, true);
        for (const auto& [channel, removed] : channels_.close(*session))
            tell([&, &channel = channel, removed = removed](BayeuxListener& listener) {
                listener.unsubscribed(session, channel);
                if (removed)
                    listener.channelRemoved(channel);
            });
        if (ended)
            tell([&](BayeuxListener& listener) { listener.sessionRemoved(session, false); });
    }
    std::vector<SessionPtr> locals;
    {
        std::lock_guard lock(mutex_);
        for (const auto& [name, weak] : locals_) {
            if (auto local = weak.lock())
                locals.push_back(std::move(local));
        }
    }
    for (const auto& local : locals)
        local->disconnect();
}

BayeuxCounters Core::counters() const
{
    BayeuxCounters counters;
    counters.sessions = sessions_.size();
    counters.channels = channels_.size();
    counters.subscriptions = channels_.subscriptions();
    counters.published = published_;
    counters.delivered = delivered_;
    counters.droppedLazy = droppedLazy_;
    counters.droppedRetained = droppedRetained_;
    counters.overflows = overflows_;
    counters.expired = expired_;
    return counters;
}

void Core::addLocal(const std::shared_ptr<LocalSession>& session)
{
    std::lock_guard lock(mutex_);
    auto& place = locals_[session->id()];
    if (!place.expired())
        throw std::invalid_argument("There is a local session named \"" + session->id() + "\" already.");
    place = session;
}

void Core::removeLocal(const LocalSession& session)
{
    std::shared_ptr<LocalSession> current; // its end is not for the lock
    std::lock_guard lock(mutex_);
    // The name may have been taken again since.
    if (const auto found = locals_.find(session.id()); found != locals_.end()) {
        current = found->second.lock();
        if (!current || current.get() == &session)
            locals_.erase(found);
    }
}

SessionPtr Core::findAny(const std::string& id) const
{
    if (auto session = sessions_.find(id))
        return session;
    std::lock_guard lock(mutex_);
    const auto found = locals_.find(id);
    return found == locals_.end() ? nullptr : found->second.lock();
}

std::vector<SessionPtr> Core::all() const
{
    const auto remote = sessions_.all();
    std::vector<SessionPtr> sessions(remote.begin(), remote.end());
    std::lock_guard lock(mutex_);
    for (const auto& [name, weak] : locals_) {
        if (auto local = weak.lock())
            sessions.push_back(std::move(local));
    }
    return sessions;
}

LocalSession::LocalSession(std::weak_ptr<Core> core, std::string name, BayeuxServer::Subscriber deliveries)
    : core_(std::move(core)), name_(std::move(name)), receiver_(std::move(deliveries))
{}

LocalSession::~LocalSession()
{
    if (const auto core = core_.lock(); core && !over_)
        core->removeLocal(*this);
}

bool LocalSession::deliver(EventPtr event)
{
    if (over_)
        return false;
    Burst burst(BayeuxLimits{});
    receiver_.receive(Publication(std::move(event)), burst);
    return true;
}

namespace {

/// Nothing gets lost on the way to a part of this process.
class LocalSeries final : public BayeuxSeries
{
public:
    explicit LocalSeries(std::shared_ptr<LocalSession> session) : session_(std::move(session)) {}
    bool deliver(EventPtr event) override { return session_->deliver(std::move(event)); }
    bool hasRoom() const override { return true; }
    bool isLost() const override { return session_->isOver(); }
    bool isAway() const override { return isLost(); }
    void close() override {}

private:
    const std::shared_ptr<LocalSession> session_;
};

} // namespace

std::shared_ptr<BayeuxSeries> LocalSession::openSeries(const std::string&, bool)
{
    return std::make_shared<LocalSeries>(shared_from_this());
}

void LocalSession::disconnect()
{
    if (over_.exchange(true))
        return;
    if (const auto core = core_.lock())
        core->removeLocal(*this);
}

} // namespace connector::bayeux
