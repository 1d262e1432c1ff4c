#include "connector/bayeux/BayeuxWebSocketServiceProvider.h"

#include "connector/bayeux/BayeuxWebSocketEndpoint.h"
#include "connector/bayeux/BusSettings.h"
#include "connector/core/Connector.h"

namespace connector::bayeux {

namespace {

/// The request's lives as long as its answer; the socket goes on.
std::shared_ptr<Context> contextOfSocket(const Context& handshake)
{
    auto context = handshake.connector()->newContext();
    context->setTransport(Context::Transport::webSocket);
    context->setClientType(handshake.clientType());
    context->setHttpSession(handshake.httpSession());
    return context;
}

} // namespace

MessageFuture BayeuxWebSocketServiceProvider::handleHttp(std::unique_ptr<http::HttpRequest>&& request, Address&& rest,
                                                         std::shared_ptr<Context>&& context)
{
    const auto limits = configuration_ ? readBusLimits(*configuration_) : BayeuxLimits();
    http::WebSocketOptions options;
    options.maxMessageBytes = limits.messageBytes + kMostTooLongBytes;
    // More than the bus itself queues, so that it decides what becomes of a client that reads too slowly.
    options.maxQueuedBytes = 2 * limits.queueBytes;
    auto endpoint = std::make_shared<BayeuxWebSocketEndpoint>(std::move(rest), contextOfSocket(*context),
                                                              request->peerAddress, limits.messageBytes);
    return makeReadyFuture<std::unique_ptr<Message>>(
        http::acceptWebSocket(*request, std::move(endpoint), std::move(options)));
}

} // namespace connector::bayeux
