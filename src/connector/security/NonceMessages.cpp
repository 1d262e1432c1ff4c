#include "connector/security/NonceMessages.h"

#include "connector/security/NonceServiceProvider.h"

namespace connector::security::v1 {

namespace {

template <class Response>
MessageFuture asNonceAnswer(Future<Response> response)
{
    return response.then(
        [](Future<Response> settled) -> std::unique_ptr<Message> { return std::make_unique<Response>(settled.get()); });
}

} // namespace

MessageFuture CreateNonce::deliverTo(std::shared_ptr<NonceServiceProvider> provider, std::unique_ptr<Message>&& message,
                                     Address&&, std::shared_ptr<Context>&&)
{
    return asNonceAnswer(provider->createNonce(static_cast<const CreateNonce&>(*message)));
}

MessageFuture RedeemNonce::deliverTo(std::shared_ptr<NonceServiceProvider> provider, std::unique_ptr<Message>&& message,
                                     Address&&, std::shared_ptr<Context>&&)
{
    return asNonceAnswer(provider->redeemNonce(static_cast<const RedeemNonce&>(*message)));
}

MessageFuture CreateEntryUrl::deliverTo(std::shared_ptr<NonceServiceProvider> provider,
                                        std::unique_ptr<Message>&& message, Address&&, std::shared_ptr<Context>&&)
{
    return asNonceAnswer(provider->createEntryUrl(static_cast<const CreateEntryUrl&>(*message)));
}

} // namespace connector::security::v1
