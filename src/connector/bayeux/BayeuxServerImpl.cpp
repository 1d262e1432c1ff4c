#include "connector/bayeux/BayeuxServerImpl.h"

#include "connector/bayeux/ChannelName.h"
#include "connector/bayeux/MessageHandler.h"
#include "connector/common/TickManager.h"
#include "connector/core/ServiceFault.h"
#include "connector/json/JsonText.h"

namespace connector::bayeux {

namespace {

using std::chrono::milliseconds;

/// What becomes due is done at most this early.
milliseconds sweepPeriod(const BayeuxLimits& limits)
{
    const auto shortest = std::min({limits.timeout, limits.lazyDelay, limits.maxInterval});
    return std::clamp(shortest / 4, milliseconds(1), milliseconds(100));
}

void requirePublishable(const std::string& channel)
{
    if (!isChannelName(channel) || isMetaChannel(channel) || isServiceChannel(channel))
        throw std::invalid_argument("Nothing is published to \"" + channel + "\".");
}

void requireSubscribable(const std::string& channel)
{
    if ((!isChannelName(channel) && !isPattern(channel)) || isMetaChannel(channel) || isServiceChannel(channel))
        throw std::invalid_argument("\"" + channel + "\" cannot be subscribed to.");
}

} // namespace

std::string BayeuxSecurityPolicy::mayHandshake(const BayeuxSession&, const Poco::JSON::Object&) { return {}; }
std::string BayeuxSecurityPolicy::mayCreate(const BayeuxSession&, const std::string&) { return {}; }
std::string BayeuxSecurityPolicy::maySubscribe(const BayeuxSession&, const std::string&) { return {}; }
std::string BayeuxSecurityPolicy::mayPublish(const BayeuxSession&, const std::string&) { return {}; }

struct BayeuxServerImpl::State
{
    void publish(const Publication& publication)
    {
        Burst burst(core->limits());
        core->publish(publication, burst);
        core->finish(burst);
    }

    EventPtr makeEvent(const std::string& channel, const Poco::Dynamic::Var& data) const
    {
        requirePublishable(channel);
        return std::make_shared<const BayeuxEvent>(channel, data,
                                                   core->isLazy(channel, core->channels().find(channel)));
    }

    const std::shared_ptr<Core> core = std::make_shared<Core>();
    const std::shared_ptr<Services> services = std::make_shared<Services>();
    std::mutex tickMutex;
    common::TickManager::Subscription ticks;
};

BayeuxServerImpl::BayeuxServerImpl() : state_(std::make_unique<State>()) {}

BayeuxServerImpl::~BayeuxServerImpl() { stop(); }

Future<std::string> BayeuxServerImpl::handle(const std::string& body, const BayeuxOrigin& origin)
{
    if (!state_->core->sessions().isOpen())
        return makeFailedFuture<std::string>(ServiceFault("unavailable", "The message bus is not running."));
    return MessageHandler(*state_->core, *state_->services, origin).handle(body);
}

void BayeuxServerImpl::webSocketClosed(const std::shared_ptr<BayeuxChannelSink>& webSocket)
{
    state_->core->webSocketClosed(webSocket);
}

void BayeuxServerImpl::publish(const std::string& channel, const Poco::Dynamic::Var& data)
{
    auto event = state_->makeEvent(channel, data);
    state_->publish(Publication(std::move(event), {channel, data, nullptr, nullptr, nullptr}));
}

void BayeuxServerImpl::publish(EventPtr event)
{
    if (!event)
        throw std::invalid_argument("There is no event to publish.");
    requirePublishable(event->channel());
    state_->publish(Publication(std::move(event)));
}

void BayeuxServerImpl::publishText(const std::string& channel, std::string_view json)
{
    requirePublishable(channel);
    json::Limits limits;
    limits.loneSurrogates = true;
    json::check(json, limits);
    state_->publish(Publication(BayeuxEvent::ofText(channel, json, state_->core->channels().options(channel).lazy)));
}

BayeuxServer::Registration BayeuxServerImpl::reserve(const std::string& channel)
{
    requireSubscribable(channel);
    state_->core->reservations().add(channel);
    return Registration([weak = std::weak_ptr(state_->core), channel] {
        if (const auto core = weak.lock())
            core->reservations().remove(channel);
    });
}

bool BayeuxServerImpl::isReserved(const std::string& channel) const
{
    return state_->core->reservations().covers(channel);
}

void BayeuxServerImpl::waitForRoom(const std::string& channel, std::chrono::milliseconds patience,
                                   const std::function<bool()>& goOn)
{
    state_->core->waitForRoom(channel, {Session::Clock::now() + patience, goOn});
}

BayeuxServer::Registration BayeuxServerImpl::subscribe(const std::string& channel, Subscriber subscriber)
{
    requireSubscribable(channel);
    if (!subscriber)
        throw std::invalid_argument("A subscription needs a function.");
    const auto receiver = std::make_shared<FunctionReceiver>(std::move(subscriber));
    state_->core->addFunction(channel, receiver);
    return Registration([weak = std::weak_ptr(state_->core), channel, receiver] {
        if (const auto core = weak.lock())
            core->removeFunction(channel, *receiver);
    });
}

BayeuxServer::Registration BayeuxServerImpl::handleService(const std::string& channel, ServiceHandler handler,
                                                           const ServiceOptions& options)
{
    if ((!isChannelName(channel) && !isPattern(channel)) || !channel.starts_with("/service/"))
        throw std::invalid_argument("\"" + channel + "\" is not a service channel.");
    if (!handler)
        throw std::invalid_argument("A service needs a function.");
    auto kept = std::make_shared<const Services::Service>(Services::Service{std::move(handler), options});
    state_->services->add(channel, kept);
    return Registration([weak = std::weak_ptr(state_->services), channel, kept = std::move(kept)] {
        if (const auto services = weak.lock())
            services->remove(channel, kept);
    });
}

SessionPtr BayeuxServerImpl::openLocalSession(const std::string& name, Subscriber deliveries)
{
    if (name.empty() || !deliveries)
        throw std::invalid_argument("A local session needs a name and a function.");
    auto session = std::make_shared<LocalSession>(state_->core, name, std::move(deliveries));
    state_->core->addLocal(session);
    return session;
}

void BayeuxServerImpl::publishAs(const BayeuxSession& sender, const std::string& channel,
                                 const Poco::Dynamic::Var& data)
{
    if (isReserved(channel))
        throw std::invalid_argument("\"" + channel + "\" is reserved: only the system publishes there.");
    auto event = state_->makeEvent(channel, data);
    state_->publish(
        Publication(std::move(event), {channel, data, nullptr, state_->core->findAny(sender.id()), nullptr}));
}

SessionPtr BayeuxServerImpl::findSession(const std::string& id) const { return state_->core->findAny(id); }

std::vector<SessionPtr> BayeuxServerImpl::sessions() const { return state_->core->all(); }

std::vector<BayeuxSessionInfo> BayeuxServerImpl::describeSessions() const
{
    std::vector<BayeuxSessionInfo> described;
    for (const auto& session : state_->core->sessions().all()) {
        described.push_back(session->describe());
        described.back().subscriptions = state_->core->channels().subscriptionsOf(*session);
    }
    return described;
}

bool BayeuxServerImpl::endSession(const std::string& publicId)
{
    for (const auto& session : state_->core->sessions().all()) {
        if (session->publicId() == publicId) {
            state_->core->kick(session);
            return true;
        }
    }
    return false;
}

bool BayeuxServerImpl::hasReceivers(const std::string& channel) const
{
    return state_->core->channels().hasReceivers(channel);
}

std::vector<SessionPtr> BayeuxServerImpl::subscribers(const std::string& channel) const
{
    std::vector<SessionPtr> sessions;
    for (const auto& receiver : state_->core->channels().subscribers(channel)) {
        if (auto session = receiver->session())
            sessions.push_back(std::move(session));
    }
    return sessions;
}

void BayeuxServerImpl::setPolicy(std::shared_ptr<BayeuxSecurityPolicy> policy, bool recheck)
{
    state_->core->setPolicy(std::move(policy), recheck);
}

void BayeuxServerImpl::setChannelOptions(const std::string& channel, const ChannelOptions& options)
{
    requirePublishable(channel);
    state_->core->setOptions(channel, options);
}

BayeuxServer::Registration BayeuxServerImpl::addRule(const std::string& channel, const ChannelRule& rule)
{
    if ((!isChannelName(channel) && !isPattern(channel)) || isMetaChannel(channel))
        throw std::invalid_argument("\"" + channel + "\" is neither a channel nor a pattern of channels.");
    auto kept = std::make_shared<const ChannelRule>(rule);
    state_->core->channels().addRule(channel, kept);
    return Registration([weak = std::weak_ptr(state_->core), channel, kept = std::move(kept)] {
        if (const auto core = weak.lock())
            core->channels().removeRule(channel, kept);
    });
}

void BayeuxServerImpl::setLimits(const BayeuxLimits& limits)
{
    state_->core->setLimits(limits);
    if (state_->core->sessions().isOpen())
        start();
}

BayeuxLimits BayeuxServerImpl::limits() const { return state_->core->limits(); }

BayeuxServer::Registration BayeuxServerImpl::addListener(std::shared_ptr<BayeuxListener> listener)
{
    if (!listener)
        throw std::invalid_argument("There is no listener to add.");
    const auto number = state_->core->addListener(std::move(listener));
    return Registration([weak = std::weak_ptr(state_->core), number] {
        if (const auto core = weak.lock())
            core->removeListener(number);
    });
}

BayeuxCounters BayeuxServerImpl::counters() const { return state_->core->counters(); }

void BayeuxServerImpl::start()
{
    const auto period = sweepPeriod(state_->core->limits());
    auto ticks = common::TickManager::instance()->every(period, [weak = std::weak_ptr(state_->core), period] {
        if (const auto core = weak.lock())
            core->sweep(period);
    });
    {
        std::lock_guard lock(state_->tickMutex);
        std::swap(state_->ticks, ticks);
    }
    state_->core->sessions().open();
}

void BayeuxServerImpl::stop()
{
    common::TickManager::Subscription ticks;
    {
        std::lock_guard lock(state_->tickMutex);
        std::swap(state_->ticks, ticks);
    }
    ticks.reset();
    state_->core->stop();
}

} // namespace connector::bayeux
