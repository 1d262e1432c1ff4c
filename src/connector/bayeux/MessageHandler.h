#pragma once

#include "connector/bayeux/Core.h"
#include "connector/bayeux/Services.h"
#include "connector/json/JsonText.h"

namespace connector::bayeux {

/// Answers the messages of one request or frame, in their order. Lives as long as that; one thread.
class MessageHandler
{
public:
    MessageHandler(Core& core, const Services& services, const BayeuxOrigin& origin);

    /// As BayeuxServer::handle.
    Future<std::string> handle(const std::string& body);

private:
    /// A message with what every reply needs of it.
    struct Incoming
    {
        const json::RawValue& raw;
        std::string channel; ///< "" without one
        std::string_view id; ///< JSON text; "" without one
    };

    static Incoming incoming(const json::RawValue& value);
    Future<std::string> refuseAll(const std::vector<json::RawValue>& messages, const Refusal& refusal);
    Future<std::string> handleAll(const std::vector<json::RawValue>& messages);
    void takeAlong();
    void handleOne(const json::RawValue& value, bool alone);
    void dispatch(const Incoming& message, bool alone);
    void handshake(const Incoming& message);
    void welcome(const Incoming& message, const std::shared_ptr<Session>& session);
    void connect(const Incoming& message, const std::shared_ptr<Session>& session, bool alone);
    void subscribe(const Incoming& message, const std::shared_ptr<Session>& session);
    void unsubscribe(const Incoming& message, const std::shared_ptr<Session>& session);
    void disconnect(const Incoming& message, const std::shared_ptr<Session>& session);
    void publish(const Incoming& message, const std::shared_ptr<Session>& session);
    void callService(const Incoming& message, const std::shared_ptr<Session>& session);

    Poco::Dynamic::Var valueOf(std::string_view json) const;
    Poco::JSON::Object::Ptr objectOf(std::string_view json) const;
    std::vector<std::string> subscriptionOf(const Incoming& message) const;
    std::shared_ptr<Session> findSession(const Incoming& message);
    std::optional<Refusal> mayPublish(const Session& session, const std::string& channel,
                                      const std::optional<ChannelOptions>& known) const;
    std::optional<Refusal> maySubscribe(const Session& session, const std::string& channel) const;
    std::optional<Refusal> subscribeAll(const std::shared_ptr<Session>& session,
                                        const std::vector<std::string>& channels);

    /// For who comes again when there is more room, or with something else.
    std::string laterAdvice(Reconnect reconnect = Reconnect::retry) const;
    void reply(std::string text);
    void sendReplies(http::SendWhen when);
    /// `advice` "" for none.
    void refuse(const Incoming& message, const Refusal& refusal, const std::string& advice = {});
    void replyToSubscription(const Incoming& message, const Session& session, const std::optional<Refusal>& refusal);

    Core& core_;
    const Services& services_;
    const BayeuxOrigin& origin_;
    Burst burst_;
    std::string replies_;
    std::size_t patient_ = 0;          ///< of the replies: they may wait for what a service answers
    std::shared_ptr<Session> speaker_; ///< of the last message
    Future<std::string> held_;
};

} // namespace connector::bayeux
