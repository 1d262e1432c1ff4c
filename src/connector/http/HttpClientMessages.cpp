#include "connector/http/HttpClientMessages.h"

#include "connector/core/TypedAnswer.h"
#include "connector/http/HttpClientServiceProvider.h"

namespace connector::http {

MessageFuture HttpClientRequest::deliverTo(std::shared_ptr<HttpClientServiceProvider> provider,
                                           std::unique_ptr<Message>&& message, Address&&,
                                           std::shared_ptr<Context>&& context)
{
    std::unique_ptr<HttpClientRequest> self(static_cast<HttpClientRequest*>(message.release()));
    return asMessage(provider->send(std::move(self), context ? context->cancellation() : nullptr));
}

} // namespace connector::http
