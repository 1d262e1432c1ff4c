#include "connector/bayeux/MessageHandler.h"

#include "connector/bayeux/ChannelName.h"
#include "connector/bayeux/Handshake.h"
#include "connector/common/Log.h"
#include "connector/http/HttpBody.h"
#include "connector/json/JsonFields.h"
#include "connector/json/JsonText.h"

namespace connector::bayeux {

namespace {

using Poco::Dynamic::Var;

constexpr std::size_t kMaxDepth = 64;
constexpr std::size_t kMaxMembers = 100'000;
/// Where there is no room, clients come again that late.
constexpr std::chrono::milliseconds kBusyInterval(5'000);

json::Limits limitsOf(const BayeuxLimits& limits)
{
    json::Limits reading;
    reading.bytes = limits.messageBytes;
    reading.depth = kMaxDepth;
    reading.members = kMaxMembers;
    return reading;
}

/// What most messages carry is passed on and not looked at.
std::optional<std::string_view> dataOf(const json::Object& message)
{
    const auto& data = json::memberOf(message, "data");
    return data.isEmpty() ? std::nullopt : std::optional(data.extract<json::RawJson>().text);
}

std::vector<Var> messagesOf(const Var& value)
{
    if (value.type() == typeid(json::Object::Ptr))
        return {value};
    if (value.type() != typeid(json::Array::Ptr))
        throw json::JsonError("expected an array or an object, found " + json::describe(value));
    const auto array = value.extract<json::Array::Ptr>();
    return std::vector<Var>(array->begin(), array->end());
}

bool isHandshake(const Var& value)
{
    if (value.type() != typeid(json::Object::Ptr))
        return false;
    const auto& channel = json::memberOf(*value.extract<json::Object::Ptr>(), "channel");
    return channel.type() == typeid(std::string) && channel.extract<std::string>() == "/meta/handshake";
}

std::string bare(const Refusal& refusal) { return Reply({}, false).addError(refusal).take(); }

/// "ext" of any message; null when there is none or something else.
json::Object::Ptr extOf(const json::Object& message)
{
    const auto& ext = json::memberOf(message, "ext");
    return ext.type() == typeid(json::Object::Ptr) ? ext.extract<json::Object::Ptr>() : nullptr;
}

std::optional<std::int64_t> wholeNumber(const json::Object::Ptr& object, const std::string& name)
{
    try {
        if (object && object->has(name))
            return json::requireInteger(*object, name, 0);
    } catch (const json::JsonError&) {
        // What does not make sense counts as not said.
    }
    return std::nullopt;
}

/// Empty for what is neither a string nor an array of strings.
std::vector<std::string> subscriptionOf(const json::Object& message)
{
    const auto& value = json::memberOf(message, "subscription");
    if (value.type() == typeid(std::string))
        return {value.extract<std::string>()};
    try {
        return json::requireStrings(message, "subscription");
    } catch (const json::JsonError&) {
        return {};
    }
}

} // namespace

MessageHandler::MessageHandler(Core& core, const Services& services, const BayeuxOrigin& origin)
    : core_(core), services_(services), origin_(origin), burst_(core.limits())
{}

Future<std::string> MessageHandler::handle(const std::string& body)
{
    if (body.size() > burst_.limits.messageBytes)
        return makeFailedFuture<std::string>(http::HttpFault(
            413, "The messages are longer than " + std::to_string(burst_.limits.messageBytes) + " bytes."));
    std::vector<Var> messages;
    try {
        messages = messagesOf(json::parseEnvelope(body, "data", limitsOf(burst_.limits)));
    } catch (const json::JsonError& error) {
        if (!origin_.webSocket)
            return makeFailedFuture<std::string>(
                http::HttpFault(400, std::string("Not Bayeux messages: ") + error.what()));
        return makeReadyFuture('[' + bare({400, "", "Not an array of messages"}) + ']');
    }
    if (messages.size() > burst_.limits.batch)
        return makeReadyFuture('[' + bare({413, std::to_string(messages.size()), "Too many messages in one array"}) +
                               ']');
    // An empty array keeps a WebSocket alive; a request has to be answered.
    if (messages.empty())
        return makeReadyFuture(origin_.webSocket ? std::string() : '[' + bare({400, "", "No messages"}) + ']');
    return handleAll(messages);
}

Future<std::string> MessageHandler::handleAll(const std::vector<Var>& messages)
{
    const auto shake = std::find_if(messages.begin(), messages.end(), isHandshake);
    if (shake != messages.end()) {
        handleOne(*shake, true);
    } else {
        for (const auto& message : messages)
            handleOne(message, messages.size() == 1);
    }
    core_.finish(burst_);
    if (held_.valid())
        return std::move(held_);
    if (origin_.webSocket && patient_ == messages.size())
        sendReplies(http::SendWhen::withNext);
    return makeReadyFuture(replies_.empty() ? std::string() : '[' + replies_ + ']');
}

void MessageHandler::handleOne(const Var& value, bool alone)
{
    Incoming message;
    if (value.type() != typeid(Object::Ptr))
        return reply(bare({400, json::describe(value), "A message is an object"}));
    message.object = value.extract<Object::Ptr>();
    const auto& id = json::memberOf(*message.object, "id");
    if (id.type() == typeid(std::string) || (id.isNumeric() && id.type() != typeid(bool)))
        message.id = json::write(id);
    else if (!id.isEmpty())
        return reply(bare({400, "id", "An id is a string or a number"}));

    const auto& channel = json::memberOf(*message.object, "channel");
    if (channel.type() != typeid(std::string))
        return refuse(message,
                      {400, "channel", channel.isEmpty() ? "A message needs a channel" : "A channel is a string"});
    message.channel = channel.extract<std::string>();
    if (!isChannelName(message.channel)) {
        const char* what = isPattern(message.channel) ? "Nothing is published to a pattern" : "Not a channel";
        return refuse(message, {400, message.channel, what});
    }
    dispatch(message, alone);
}

void MessageHandler::dispatch(const Incoming& message, bool alone)
{
    const auto& channel = message.channel;
    if (channel == "/meta/handshake")
        return handshake(message);
    const auto session = findSession(message);
    if (!session)
        return;
    if (origin_.webSocket)
        core_.bind(session, origin_.webSocket);
    if (channel == "/meta/connect")
        connect(message, session, alone);
    else if (channel == "/meta/subscribe")
        subscribe(message, session);
    else if (channel == "/meta/unsubscribe")
        unsubscribe(message, session);
    else if (channel == "/meta/disconnect")
        disconnect(message, session);
    else if (isMetaChannel(channel))
        refuse(message, {404, channel, "No such meta channel"});
    else if (isServiceChannel(channel))
        callService(message, session);
    else
        publish(message, session);
}

/// Null when the message has been refused.
std::shared_ptr<Session> MessageHandler::findSession(const Incoming& message)
{
    const auto& clientId = json::memberOf(*message.object, "clientId");
    if (!clientId.isEmpty() && clientId.type() != typeid(std::string)) {
        refuse(message, {400, "clientId", "A clientId is a string"}, adviceText(Reconnect::handshake, burst_.limits));
        return nullptr;
    }
    const std::string id = clientId.isEmpty() ? std::string() : clientId.extract<std::string>();
    auto session = core_.sessions().find(id);
    if (session && session->belongsTo(origin_, message.channel == "/meta/connect"))
        return session;
    const auto reconnect = core_.sessions().isBanned(id) ? Reconnect::none : Reconnect::handshake;
    refuse(message, {402, id, "Unknown client"}, adviceText(reconnect, burst_.limits));
    return nullptr;
}

void MessageHandler::handshake(const Incoming& message)
{
    const auto fail = [&](const Refusal& refusal, const std::string& advice) {
        reply(Reply(message.channel, false)
                  .addText("version", kVersion)
                  .addText("minimumVersion", kVersion)
                  .add("supportedConnectionTypes", kConnectionTypes)
                  .addId(message.id)
                  .addError(refusal)
                  .add("advice", advice)
                  .take());
    };
    const auto never = adviceText(Reconnect::none, burst_.limits);
    if (const auto refusal = checkHandshake(*message.object))
        return fail(*refusal, never);
    const auto session = core_.makeSession(origin_, asksForAcknowledgement(*message.object));
    const auto reason =
        core_.ask([&](BayeuxSecurityPolicy& policy) { return policy.mayHandshake(*session, *message.object); });
    if (!reason.empty())
        return fail({403, "", reason}, never);
    if (core_.admit(session) != SessionTable::Added::yes) {
        auto later = burst_.limits;
        later.interval = std::max(later.interval, kBusyInterval);
        return fail({503, "", "No room for another client"}, adviceText(Reconnect::handshake, later));
    }
    welcome(message, session);
    if (!origin_.webSocket)
        return;
    // What listeners sent it already must not come before its id.
    if (session->hasEvents()) {
        sendReplies(http::SendWhen::soon);
    }
    core_.bind(session, origin_.webSocket);
}

void MessageHandler::welcome(const Incoming& message, const std::shared_ptr<Session>& session)
{
    Reply answer(message.channel, true);
    answer.addText("clientId", session->id())
        .addText("version", kVersion)
        .addText("minimumVersion", kVersion)
        .add("supportedConnectionTypes", kConnectionTypes)
        .addId(message.id)
        .add("advice", adviceText(Reconnect::retry, burst_.limits));
    if (session->acknowledges())
        answer.add("ext", R"({"ack":true})");
    reply(answer.take());
}

void MessageHandler::connect(const Incoming& message, const std::shared_ptr<Session>& session, bool alone)
{
    const auto& type = json::memberOf(*message.object, "connectionType");
    if (type.type() != typeid(std::string) || !isConnectionType(type.extract<std::string>())) {
        const std::string name = type.type() == typeid(std::string) ? type.extract<std::string>() : "connectionType";
        return refuse(message, {400, name, "Not a supported connection type"},
                      adviceText(Reconnect::none, burst_.limits));
    }
    Session::Connect request;
    request.id = message.id;
    request.alone = alone;
    const auto& advice = json::memberOf(*message.object, "advice");
    if (advice.type() == typeid(Object::Ptr)) {
        if (const auto timeout = wholeNumber(advice.extract<Object::Ptr>(), "timeout"))
            request.timeout =
                std::chrono::milliseconds(std::min<std::int64_t>(*timeout, burst_.limits.timeout.count()));
    }
    if (const auto acknowledged = wholeNumber(extOf(*message.object), "ack"))
        request.acknowledged = static_cast<std::uint64_t>(*acknowledged);

    auto connected = session->connect(request, origin_, burst_.limits);
    burst_.delivered += connected.delivered;
    if (connected.isOver)
        return refuse(message, {402, session->id(), "Unknown client"},
                      adviceText(core_.sessions().isBanned(session->id()) ? Reconnect::none : Reconnect::handshake,
                                 burst_.limits));
    if (connected.isHeld)
        held_ = std::move(connected.answer);
    else if (!connected.text.empty())
        reply(std::move(connected.text));
}

std::optional<Refusal> MessageHandler::maySubscribe(const Session& session, const std::string& channel) const
{
    if (!isChannelName(channel) && !isPattern(channel))
        return Refusal{400, channel, "Not a channel or pattern"};
    if (isMetaChannel(channel))
        return Refusal{403, channel, "Meta channels are not for subscription"};
    std::string reason;
    if (!core_.channels().exists(channel))
        reason = core_.ask([&](BayeuxSecurityPolicy& policy) { return policy.mayCreate(session, channel); });
    if (reason.empty())
        reason = core_.ask([&](BayeuxSecurityPolicy& policy) { return policy.maySubscribe(session, channel); });
    return reason.empty() ? std::nullopt : std::optional(Refusal{403, channel, reason});
}

std::optional<Refusal> MessageHandler::subscribeAll(const std::shared_ptr<Session>& session,
                                                    const std::vector<std::string>& channels)
{
    for (const auto& channel : channels) {
        if (auto refusal = maySubscribe(*session, channel))
            return refusal;
    }
    std::vector<std::string> added;
    std::optional<Refusal> refusal;
    for (const auto& channel : channels) {
        const auto outcome = core_.subscribe(session, channel, burst_);
        if (outcome == Channels::Added::yes)
            added.push_back(channel);
        else if (outcome == Channels::Added::tooManyChannels)
            refusal = Refusal{403, channel, "Too many channels"};
        else if (outcome == Channels::Added::tooManySubscriptions)
            refusal = Refusal{403, channel, "Too many subscriptions"};
        else if (outcome == Channels::Added::receiverIsClosed)
            refusal = Refusal{402, session->id(), "Unknown client"};
        if (refusal)
            break;
    }
    if (refusal) {
        for (const auto& channel : added)
            core_.unsubscribe(session, channel, burst_);
    }
    return refusal;
}

void MessageHandler::subscribe(const Incoming& message, const std::shared_ptr<Session>& session)
{
    const auto channels = subscriptionOf(*message.object);
    if (channels.empty())
        return refuse(message, {400, "subscription", "Neither a channel nor an array of channels"});
    replyToSubscription(message, *session, subscribeAll(session, channels));
}

void MessageHandler::unsubscribe(const Incoming& message, const std::shared_ptr<Session>& session)
{
    const auto channels = subscriptionOf(*message.object);
    if (channels.empty())
        return refuse(message, {400, "subscription", "Neither a channel nor an array of channels"});
    for (const auto& channel : channels) {
        if (!isChannelName(channel) && !isPattern(channel))
            return replyToSubscription(message, *session, Refusal{400, channel, "Not a channel or pattern"});
    }
    for (const auto& channel : channels)
        core_.unsubscribe(session, channel, burst_);
    replyToSubscription(message, *session, std::nullopt);
}

void MessageHandler::disconnect(const Incoming& message, const std::shared_ptr<Session>& session)
{
    core_.end(session, Core::End::goodbye);
    reply(Reply(message.channel, true).addText("clientId", session->id()).addId(message.id).take());
}

std::optional<Refusal> MessageHandler::mayPublish(const Session& session, const std::string& channel) const
{
    constexpr std::string_view kPresence = "/presence";
    auto& channels = core_.channels();
    if (channels.options(channel).serverPublishesOnly ||
        (channel.starts_with(kPresence) && channels.options(channel.substr(kPresence.size())).presence))
        return Refusal{403, channel, "Only the server publishes here"};
    std::string reason;
    if (!channels.exists(channel))
        reason = core_.ask([&](BayeuxSecurityPolicy& policy) { return policy.mayCreate(session, channel); });
    if (reason.empty())
        reason = core_.ask([&](BayeuxSecurityPolicy& policy) { return policy.mayPublish(session, channel); });
    return reason.empty() ? std::nullopt : std::optional(Refusal{403, channel, reason});
}

void MessageHandler::publish(const Incoming& message, const std::shared_ptr<Session>& session)
{
    const auto data = dataOf(*message.object);
    if (!data)
        return refuse(message, {400, "data", "A message to a channel needs data"});
    if (const auto refusal = mayPublish(*session, message.channel))
        return refuse(message, *refusal);
    const bool lazy = core_.channels().options(message.channel).lazy;
    core_.publish(Publication(BayeuxEvent::ofText(message.channel, *data, lazy), extOf(*message.object), session),
                  burst_);
    reply(Reply(message.channel, true).addId(message.id).take());
}

void MessageHandler::callService(const Incoming& message, const std::shared_ptr<Session>& session)
{
    const auto service = services_.find(message.channel);
    if (!service)
        return refuse(message, {404, message.channel, "No such service"});
    const auto reason =
        core_.ask([&](BayeuxSecurityPolicy& policy) { return policy.mayPublish(*session, message.channel); });
    if (!reason.empty())
        return refuse(message, {403, message.channel, reason});
    try {
        const auto data = dataOf(*message.object);
        const auto answer =
            service->handler({message.channel, data ? json::parse(*data, limitsOf(burst_.limits)) : Var(),
                              extOf(*message.object), session});
        if (!answer.isEmpty())
            session->receive(Publication(std::make_shared<const BayeuxEvent>(message.channel, answer)), burst_);
    } catch (const std::exception& error) {
        common::log("connector.bayeux", common::LogLevel::error,
                    "The service of " + message.channel + " failed: " + error.what());
        return refuse(message, {500, message.channel, "The service failed"});
    }
    if (service->options.answersSoon)
        ++patient_;
    reply(Reply(message.channel, true).addId(message.id).take());
}

void MessageHandler::sendReplies(http::SendWhen when)
{
    const auto text = std::make_shared<const std::string>('[' + std::exchange(replies_, {}) + ']');
    // A socket that takes no more is closing.
    origin_.webSocket->send(text, when);
}

void MessageHandler::reply(std::string text) { replies_.append(replies_.empty() ? "" : ",").append(text); }

void MessageHandler::refuse(const Incoming& message, const Refusal& refusal, const std::string& advice)
{
    Reply answer(message.channel, false);
    answer.addId(message.id).addError(refusal);
    if (message.object->has("subscription"))
        answer.add("subscription", json::write(json::memberOf(*message.object, "subscription")));
    if (!advice.empty())
        answer.add("advice", advice);
    reply(answer.take());
}

void MessageHandler::replyToSubscription(const Incoming& message, const Session& session,
                                         const std::optional<Refusal>& refusal)
{
    Reply answer(message.channel, !refusal);
    answer.addText("clientId", session.id())
        .add("subscription", json::write(json::memberOf(*message.object, "subscription")))
        .addId(message.id);
    if (refusal)
        answer.addError(*refusal);
    if (refusal && refusal->code == 402)
        answer.add("advice", adviceText(Reconnect::handshake, burst_.limits));
    reply(answer.take());
}

} // namespace connector::bayeux
