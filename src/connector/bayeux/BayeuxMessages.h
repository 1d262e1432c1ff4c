#pragma once

#include <string>

#include "connector/Export.h"
#include "connector/bayeux/BayeuxServer.h"
#include "connector/core/ServiceProvider.h"

namespace connector::bayeux {

class BayeuxServiceProvider;

/// What a transport took in: a request's body or a frame's text, whole.
class CONNECTOR_API BayeuxRequest final : public ServiceMessage<BayeuxServiceProvider>
{
public:
    std::shared_ptr<const std::string> body; ///< the transport may keep it, to tell of a failure message by message
    BayeuxOrigin origin;

    MessageFuture deliverTo(std::shared_ptr<BayeuxServiceProvider> provider, std::unique_ptr<Message>&& message,
                            Address&& address, std::shared_ptr<Context>&& context) override;
};

/// A JSON array, or "" where nothing is to be sent.
class CONNECTOR_API BayeuxResponse final : public Message
{
public:
    explicit BayeuxResponse(std::string replies) : body(std::move(replies)) {}
    std::string body;
};

/// A transport's connection ended.
class CONNECTOR_API BayeuxWebSocketClosed final : public ServiceMessage<BayeuxServiceProvider>
{
public:
    explicit BayeuxWebSocketClosed(std::shared_ptr<BayeuxChannelSink> socket) : webSocket(std::move(socket)) {}
    std::shared_ptr<BayeuxChannelSink> webSocket;

    MessageFuture deliverTo(std::shared_ptr<BayeuxServiceProvider> provider, std::unique_ptr<Message>&& message,
                            Address&& address, std::shared_ptr<Context>&& context) override;
};

} // namespace connector::bayeux
