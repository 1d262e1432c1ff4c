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
    reading.loneSurrogates = true;
    return reading;
}

/// What clients send again by themselves when it fails.
bool isRepeated(std::string_view channel) { return channel == "/meta/connect" || channel == "/meta/handshake"; }

bool isHandshake(const json::RawValue& message)
{
    return json::rawString(message.member("channel")) == "/meta/handshake";
}

/// Null counts as nothing, but where it may be what a message carries.
bool isMissing(std::string_view json) { return json.empty() || json == "null"; }

std::string bare(const Refusal& refusal) { return Reply({}, false).addError(refusal).take(); }

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
std::vector<std::string> stringsOf(const Var& value)
{
    if (value.type() == typeid(std::string))
        return {value.extract<std::string>()};
    std::vector<std::string> strings;
    try {
        for (const auto& element : *json::asArray(value))
            strings.push_back(json::asString(element));
    } catch (const json::JsonError&) {
        return {};
    }
    return strings;
}

} // namespace

MessageHandler::MessageHandler(Core& core, const Services& services, const BayeuxOrigin& origin)
    : core_(core), services_(services), origin_(origin), burst_(core.limits())
{}

Future<std::string> MessageHandler::handle(const std::string& body)
{
    std::vector<json::RawValue> messages;
    try {
        auto limits = limitsOf(burst_.limits);
        limits.bytes = body.size();
        messages = json::parseRaw(body, limits);
    } catch (const json::JsonError& error) {
        if (!origin_.webSocket)
            return makeFailedFuture<std::string>(
                http::HttpFault(400, std::string("Not Bayeux messages: ") + error.what()));
        return makeReadyFuture('[' + bare({400, "", "Not an array of messages"}) + ']');
    }
    if (body.size() > burst_.limits.messageBytes)
        return refuseAll(messages, {413, std::to_string(body.size()), "More bytes than allowed in one request"});
    if (messages.size() > burst_.limits.batch)
        return refuseAll(messages, {413, std::to_string(messages.size()), "Too many messages in one array"});
    // An empty array keeps a WebSocket alive; a request has to be answered.
    if (messages.empty())
        return makeReadyFuture(origin_.webSocket ? std::string() : '[' + bare({400, "", "No messages"}) + ']');
    return handleAll(messages);
}

Future<std::string> MessageHandler::handleAll(const std::vector<json::RawValue>& messages)
{
    const auto shake = std::find_if(messages.begin(), messages.end(), isHandshake);
    if (shake != messages.end()) {
        handleOne(*shake, true);
    } else {
        for (const auto& message : messages)
            handleOne(message, messages.size() == 1);
        takeAlong();
    }
    core_.finish(burst_);
    if (held_.valid())
        return std::move(held_);
    if (origin_.webSocket && patient_ == messages.size())
        sendReplies(http::SendWhen::withNext);
    return makeReadyFuture(replies_.empty() ? std::string() : '[' + replies_ + ']');
}

/// Bayeux 1.0 §5.2: rather with the reply that goes out now than by waking the connect that waits.
void MessageHandler::takeAlong()
{
    if (!speaker_ || origin_.webSocket || held_.valid())
        return;
    if (auto events = speaker_->takeAlong(burst_.limits, burst_.delivered); !events.empty())
        reply(std::move(events));
}

/// Those that say nothing of themselves, which no client sends, are not answered one by one: there may be many.
Future<std::string> MessageHandler::refuseAll(const std::vector<json::RawValue>& messages, const Refusal& refusal)
{
    for (const auto& value : messages) {
        const auto message = incoming(value);
        if (!message.channel.empty() || !message.id.empty())
            refuse(message, refusal, isRepeated(message.channel) ? laterAdvice() : std::string());
    }
    return makeReadyFuture('[' + (replies_.empty() ? bare(refusal) : replies_) + ']');
}

/// What of it every reply needs, as far as it is there and right.
MessageHandler::Incoming MessageHandler::incoming(const json::RawValue& value)
{
    return {value, json::rawString(value.member("channel")).value_or(""), idOf(value)};
}

void MessageHandler::handleOne(const json::RawValue& value, bool alone)
{
    const auto* const fault = value.fault();
    if (!value.isObject())
        return reply(bare({400, fault ? "" : json::describe(valueOf(value.text())), "A message is an object"}));
    const auto message = incoming(value);
    if (message.channel == "/meta/handshake")
        return handshake(message);
    if (fault)
        return refuse(message, {400, fault->member, fault->what},
                      isRepeated(message.channel) ? laterAdvice() : std::string());
    const auto channel = value.member("channel");
    if (const auto id = value.member("id"); message.id.empty() && !isMissing(id))
        return refuse(message, {400, "id", "An id is a string or a number"});
    if (!channel.starts_with('"'))
        return refuse(message,
                      {400, "channel", isMissing(channel) ? "A message needs a channel" : "A channel is a string"});
    if (!isChannelName(message.channel)) {
        const char* what = isPattern(message.channel) ? "Nothing is published to a pattern" : "Not a channel";
        return refuse(message, {400, message.channel, what});
    }
    dispatch(message, alone);
}

void MessageHandler::dispatch(const Incoming& message, bool alone)
{
    const auto& channel = message.channel;
    const auto session = findSession(message);
    if (!session)
        return;
    if (origin_.webSocket)
        core_.bind(session, origin_.webSocket);
    speaker_ = session;
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

/// Of a part of what was within the limits.
Var MessageHandler::valueOf(std::string_view json) const { return json::parse(json, limitsOf(burst_.limits)); }

/// Null for a member that is something else or not there.
json::Object::Ptr MessageHandler::objectOf(std::string_view json) const
{
    return json.starts_with('{') ? json::asObject(valueOf(json)) : nullptr;
}

/// Null when the message has been refused.
std::shared_ptr<Session> MessageHandler::findSession(const Incoming& message)
{
    const auto clientId = message.raw.member("clientId");
    const auto text = json::rawString(clientId);
    if (!text && !isMissing(clientId)) {
        refuse(message, {400, "clientId", "A clientId is a string"}, adviceText(Reconnect::handshake, burst_.limits));
        return nullptr;
    }
    const std::string id = text.value_or("");
    auto session = core_.sessions().find(id);
    if (session && session->belongsTo(origin_, message.channel == "/meta/connect"))
        return session;
    const auto reconnect = core_.sessions().isBanned(id) ? Reconnect::none : Reconnect::handshake;
    refuse(message, {402, id, "Unknown client"}, adviceText(reconnect, burst_.limits));
    return nullptr;
}

std::string MessageHandler::laterAdvice(Reconnect reconnect) const
{
    auto later = burst_.limits;
    later.interval = std::max(later.interval, kBusyInterval);
    return adviceText(reconnect, later);
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
    if (const auto* fault = message.raw.fault())
        return fail({400, fault->member, fault->what}, never);
    if (const auto id = message.raw.member("id"); message.id.empty() && !isMissing(id))
        return fail({400, "id", "An id is a string or a number"}, never);
    const auto object = objectOf(message.raw.text());
    if (const auto refusal = checkHandshake(*object))
        return fail(*refusal, never);
    const auto session = core_.makeSession(origin_, asksForAcknowledgement(*object));
    const auto reason = core_.ask([&](BayeuxSecurityPolicy& policy) { return policy.mayHandshake(*session, *object); });
    if (!reason.empty())
        return fail({403, "", reason}, never);
    if (core_.admit(session) != SessionTable::Added::yes)
        return fail({503, "", "No room for another client"}, laterAdvice(Reconnect::handshake));
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
    const auto type = json::rawString(message.raw.member("connectionType"));
    if (!type || !isConnectionType(*type))
        return refuse(message, {400, type.value_or("connectionType"), "Not a supported connection type"},
                      adviceText(Reconnect::none, burst_.limits));
    Session::Connect request;
    request.id = message.id;
    request.alone = alone;
    if (const auto timeout = wholeNumber(objectOf(message.raw.member("advice")), "timeout"))
        request.timeout = std::chrono::milliseconds(std::min<std::int64_t>(*timeout, burst_.limits.timeout.count()));
    if (const auto acknowledged = wholeNumber(objectOf(message.raw.member("ext")), "ack"))
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
    if (!core_.channels().rules().of(channel).maySubscribe(session.publicId()))
        return Refusal{403, channel, "This client may not subscribe here"};
    std::string reason;
    if (!core_.channels().find(channel))
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

/// Empty for what is neither a string nor an array of strings.
std::vector<std::string> MessageHandler::subscriptionOf(const Incoming& message) const
{
    const auto subscription = message.raw.member("subscription");
    return subscription.empty() ? std::vector<std::string>() : stringsOf(valueOf(subscription));
}

void MessageHandler::subscribe(const Incoming& message, const std::shared_ptr<Session>& session)
{
    const auto channels = subscriptionOf(message);
    if (channels.empty())
        return refuse(message, {400, "subscription", "Neither a channel nor an array of channels"});
    replyToSubscription(message, *session, subscribeAll(session, channels));
}

void MessageHandler::unsubscribe(const Incoming& message, const std::shared_ptr<Session>& session)
{
    const auto channels = subscriptionOf(message);
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

/// `known`: what is set for the channel, when there is one.
std::optional<Refusal> MessageHandler::mayPublish(const Session& session, const std::string& channel,
                                                  const std::optional<ChannelOptions>& known) const
{
    if ((known && known->serverPublishesOnly) || core_.reservations().covers(channel))
        return Refusal{403, channel, "Only the server publishes here"};
    if (!core_.channels().rules().of(channel).mayPublish(session.publicId()))
        return Refusal{403, channel, "This client may not publish here"};
    std::string reason;
    if (!known)
        reason = core_.ask([&](BayeuxSecurityPolicy& policy) { return policy.mayCreate(session, channel); });
    if (reason.empty())
        reason = core_.ask([&](BayeuxSecurityPolicy& policy) { return policy.mayPublish(session, channel); });
    return reason.empty() ? std::nullopt : std::optional(Refusal{403, channel, reason});
}

void MessageHandler::publish(const Incoming& message, const std::shared_ptr<Session>& session)
{
    const auto data = message.raw.member("data");
    if (data.empty())
        return refuse(message, {400, "data", "A message to a channel needs data"});
    const auto known = core_.channels().find(message.channel);
    if (const auto refusal = mayPublish(*session, message.channel, known))
        return refuse(message, *refusal);
    core_.publish(Publication(BayeuxEvent::ofText(message.channel, data, core_.isLazy(message.channel, known)),
                              objectOf(message.raw.member("ext")), session),
                  burst_);
    reply(Reply(message.channel, true).addId(message.id).take());
}

void MessageHandler::callService(const Incoming& message, const std::shared_ptr<Session>& session)
{
    const auto service = services_.find(message.channel);
    if (!service)
        return refuse(message, {404, message.channel, "No such service"});
    if (!core_.channels().rules().of(message.channel).mayPublish(session->publicId()))
        return refuse(message, {403, message.channel, "This client may not publish here"});
    const auto reason =
        core_.ask([&](BayeuxSecurityPolicy& policy) { return policy.mayPublish(*session, message.channel); });
    if (!reason.empty())
        return refuse(message, {403, message.channel, reason});
    const auto data = message.raw.member("data");
    auto limits = limitsOf(burst_.limits);
    limits.loneSurrogates = false; // what a service takes it works with, so that it has to be text
    Var value;
    try {
        if (!data.empty())
            value = json::parse(data, limits);
    } catch (const json::JsonError& error) {
        return refuse(message, {400, "data", error.what()});
    }
    try {
        const auto answer = service->handler(
            {message.channel, value, objectOf(message.raw.member("ext")), session, nullptr, data, message.id});
        if (!answer.isEmpty())
            session->receive(Publication(std::make_shared<const BayeuxEvent>(message.channel, answer)), burst_);
    } catch (const ServiceRefusal& refusal) {
        return refuse(message, {refusal.code(), message.channel, refusal.what()});
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
    if (const auto clientId = message.raw.member("clientId");
        clientId.starts_with('"') && isMetaChannel(message.channel) && message.channel != "/meta/handshake")
        answer.add("clientId", clientId);
    if (const auto subscription = message.raw.member("subscription"); !subscription.empty())
        answer.add("subscription", subscription);
    if (!advice.empty())
        answer.add("advice", advice);
    reply(answer.take());
}

void MessageHandler::replyToSubscription(const Incoming& message, const Session& session,
                                         const std::optional<Refusal>& refusal)
{
    Reply answer(message.channel, !refusal);
    answer.addText("clientId", session.id()).add("subscription", message.raw.member("subscription")).addId(message.id);
    if (refusal)
        answer.addError(*refusal);
    if (refusal && refusal->code == 402)
        answer.add("advice", adviceText(Reconnect::handshake, burst_.limits));
    reply(answer.take());
}

} // namespace connector::bayeux
