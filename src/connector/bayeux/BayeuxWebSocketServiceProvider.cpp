#include "connector/bayeux/BayeuxWebSocketServiceProvider.h"

#include "connector/bayeux/BayeuxWebSocketEndpoint.h"
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
    http::WebSocketOptions options;
    options.maxMessageBytes = kMaxMessageBytes;
    options.maxQueuedBytes = kMaxQueuedBytes;
    auto endpoint =
        std::make_shared<BayeuxWebSocketEndpoint>(std::move(rest), contextOfSocket(*context), request->peerAddress);
    return makeReadyFuture<std::unique_ptr<Message>>(
        http::acceptWebSocket(*request, std::move(endpoint), std::move(options)));
}

} // namespace connector::bayeux
