#include "connector/bayeux/BayeuxMessages.h"

#include "connector/bayeux/BayeuxServiceProvider.h"

namespace connector::bayeux {

MessageFuture BayeuxRequest::deliverTo(std::shared_ptr<BayeuxServiceProvider> provider,
                                       std::unique_ptr<Message>&& message, Address&&, std::shared_ptr<Context>&&)
{
    return provider->handle(static_cast<BayeuxRequest&>(*message))
        .then([](Future<std::string> replies) -> std::unique_ptr<Message> {
            return std::make_unique<BayeuxResponse>(replies.get());
        });
}

MessageFuture BayeuxWebSocketClosed::deliverTo(std::shared_ptr<BayeuxServiceProvider> provider,
                                               std::unique_ptr<Message>&& message, Address&&,
                                               std::shared_ptr<Context>&&)
{
    provider->webSocketClosed(static_cast<const BayeuxWebSocketClosed&>(*message));
    return makeReadyFuture<std::unique_ptr<Message>>(std::make_unique<BayeuxResponse>(std::string()));
}

} // namespace connector::bayeux
