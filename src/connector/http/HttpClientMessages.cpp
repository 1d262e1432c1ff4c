#include "connector/http/HttpClientMessages.h"

#include "connector/http/HttpClientServiceProvider.h"

namespace connector::http {

MessageFuture HttpClientRequest::deliverTo(std::shared_ptr<HttpClientServiceProvider> provider,
                                           std::unique_ptr<Message>&& message, Address&&,
                                           std::shared_ptr<Context>&& context)
{
    std::unique_ptr<HttpClientRequest> self(static_cast<HttpClientRequest*>(message.release()));
    return provider->send(std::move(self), context ? context->cancellation() : nullptr)
        .then([](Future<HttpClientResponse> settled) -> std::unique_ptr<Message> {
            return std::make_unique<HttpClientResponse>(settled.get());
        });
}

} // namespace connector::http
