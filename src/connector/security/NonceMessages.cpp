#include "connector/security/NonceMessages.h"

#include "connector/core/TypedAnswer.h"
#include "connector/security/NonceServiceProvider.h"

namespace connector::security::v1 {

MessageFuture CreateNonce::deliverTo(std::shared_ptr<NonceServiceProvider> provider, std::unique_ptr<Message>&& message,
                                     Address&&, std::shared_ptr<Context>&&)
{
    return asMessage(provider->createNonce(static_cast<const CreateNonce&>(*message)));
}

MessageFuture RedeemNonce::deliverTo(std::shared_ptr<NonceServiceProvider> provider, std::unique_ptr<Message>&& message,
                                     Address&&, std::shared_ptr<Context>&&)
{
    return asMessage(provider->redeemNonce(static_cast<const RedeemNonce&>(*message)));
}

MessageFuture CreateEntryUrl::deliverTo(std::shared_ptr<NonceServiceProvider> provider,
                                        std::unique_ptr<Message>&& message, Address&&, std::shared_ptr<Context>&&)
{
    return asMessage(provider->createEntryUrl(static_cast<const CreateEntryUrl&>(*message)));
}

} // namespace connector::security::v1
