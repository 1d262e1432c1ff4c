#include "connector/bayeux/ScriptBus.h"

#include "connector/bayeux/Replies.h"
#include "connector/json/JsonFields.h"
#include "connector/json/JsonText.h"

namespace connector::bayeux {

namespace {

constexpr std::size_t kMaxErrorBytes = 1'000;

/// Answers by a message on the service channel with the id of the one it answers, by which some client libraries find
/// the caller.
class Call final : public rqe::ServiceCall
{
public:
    Call(const BayeuxMessage& message, std::size_t maxBytes)
        : channel_(message.channel), json_(message.json.empty() ? "null" : message.json), id_(message.id),
          sender_(message.sender), maxBytes_(maxBytes)
    {}
    ~Call() override
    {
        if (!answered_)
            refuse(503, "", "The service ended before it answered");
    }

    const std::string& channel() const noexcept override { return channel_; }
    const std::string& json() const noexcept override { return json_; }
    const std::string& session() const noexcept override { return sender_->publicId(); }

    void answer(const std::string& json) override
    {
        try {
            json::parse(json);
        } catch (const json::JsonError& error) {
            return fail("ValueError", error.what());
        }
        std::string text = R"({"channel":)";
        json::appendString(text, channel_);
        if (!id_.empty())
            text.append(R"(,"id":)").append(id_);
        text.append(R"(,"data":)").append(json).append("}");
        if (text.size() > maxBytes_)
            return fail("ValueError", "The answer has " + std::to_string(text.size()) + " bytes, more than " +
                                          std::to_string(maxBytes_) + " (bus.maxQueuedBytes)");
        send(text);
    }

    void fail(const std::string& kind, const std::string& text) override { refuse(500, kind, text); }
    /// Its sender is told in another way.
    void dismiss() noexcept { answered_ = true; }

private:
    void refuse(unsigned code, const std::string& kind, const std::string& text)
    {
        const auto what = text.substr(0, kMaxErrorBytes);
        auto data = json::makeObject();
        data->set("error", kind.empty() ? std::string("ServiceEnded") : kind);
        data->set("message", what);
        send(Reply(channel_, false).addId(id_).addError({code, kind, what}).add("data", json::write(data)).take());
    }

    void send(const std::string& text)
    {
        answered_ = true;
        sender_->answer(BayeuxEvent::ofMessage(channel_, text));
    }

    const std::string channel_;
    const std::string json_;
    const std::string id_;
    const SessionPtr sender_;
    const std::size_t maxBytes_;
    bool answered_ = false;
};

Audience audienceOf(const rqe::ChannelRule::Sessions& sessions)
{
    Audience audience;
    audience.everybody = !sessions;
    if (sessions)
        audience.publicIds.insert(sessions->begin(), sessions->end());
    return audience;
}

/// As something to be called.
std::function<void()> undoOf(BayeuxServer::Registration registration)
{
    return [kept = std::make_shared<BayeuxServer::Registration>(std::move(registration))] { kept->reset(); };
}

} // namespace

void ScriptBus::publish(const std::string& channel, const std::string& json, const GoOn& goOn)
{
    if (isReserved(channel))
        throw std::invalid_argument("\"" + channel + "\" is reserved: only the system publishes there.");
    // It would end every session that subscribed.
    if (const auto most = server_->limits().queueBytes; json.size() > most)
        throw std::invalid_argument("The message for \"" + channel + "\" has " + std::to_string(json.size()) +
                                    " bytes, more than " + std::to_string(most) + " (bus.maxQueuedBytes).");
    tell(channel, json);
    server_->waitForRoom(channel, kPatience, goOn);
}

void ScriptBus::tell(const std::string& channel, const std::string& json) { server_->publishText(channel, json); }

bool ScriptBus::hasSubscribers(const std::string& channel) const { return server_->hasReceivers(channel); }

bool ScriptBus::isReserved(const std::string& channel) const { return server_->isReserved(channel); }

std::function<void()> ScriptBus::subscribe(const std::string& channel, Receiver receiver)
{
    return undoOf(server_->subscribe(channel, [receiver = std::move(receiver)](const BayeuxMessage& message) {
        receiver(message.channel, std::string(message.event->data()));
    }));
}

std::function<void()> ScriptBus::serve(const std::string& channel, Server server)
{
    ServiceOptions options;
    options.stepsBack = true;
    return undoOf(server_->handleService(
        channel,
        [server = std::move(server),
         weak = std::weak_ptr(server_)](const BayeuxMessage& message) -> Poco::Dynamic::Var {
            const auto bus = weak.lock();
            auto call = std::make_shared<Call>(message, bus ? bus->limits().queueBytes : 0);
            if (server(call))
                return {};
            call->dismiss();
            throw ServiceRefusal(503, "The service is busy");
        },
        options));
}

std::function<void()> ScriptBus::rule(const std::string& channel, const rqe::ChannelRule& rule)
{
    ChannelRule set;
    set.retain = rule.retain;
    set.presence = rule.presence;
    set.lazy = rule.lazy;
    set.publishers = audienceOf(rule.publishers);
    set.subscribers = audienceOf(rule.subscribers);
    return undoOf(server_->addRule(channel, set));
}

std::vector<rqe::BusSession> ScriptBus::sessions() const
{
    std::vector<rqe::BusSession> sessions;
    for (auto& info : server_->describeSessions())
        sessions.push_back({std::move(info.publicId), std::move(info.peerAddress), info.webSocket, info.queued,
                            std::move(info.subscriptions)});
    return sessions;
}

bool ScriptBus::endSession(const std::string& id) { return server_->endSession(id); }

} // namespace connector::bayeux
