#include "connector/json/OpaqueServiceProvider.h"

#include "connector/core/Connector.h"

namespace connector::json {

MessageFuture OpaqueServiceProvider::answerOrForward(std::unique_ptr<Message> result, Address&& address,
                                                     std::shared_ptr<Context>&& context)
{
    if (address.empty())
        return makeReadyFuture(std::move(result));
    if (!context)
        throw std::invalid_argument("There is no context to reach " + toString(address) + " with.");
    const auto connector = context->connector();
    return connector->handle(std::move(result), std::move(address), std::move(context));
}

MessageFuture OpaqueMessage::deliverTo(std::shared_ptr<OpaqueServiceProvider> provider,
                                       std::unique_ptr<Message>&& message, Address&& address,
                                       std::shared_ptr<Context>&& context)
{
    return provider->handleOpaque(std::move(message), std::move(address), std::move(context));
}

SerializeMessage::~SerializeMessage() = default;
JsonMessage::~JsonMessage() = default;

} // namespace connector::json
