#include "connector/json/JsonSerializerServiceProvider.h"

#include <exception>
#include <stdexcept>
#include <typeinfo>
#include <utility>

namespace connector::json {

namespace {

std::shared_ptr<JsonSerializer> checked(std::shared_ptr<JsonSerializer> serializer)
{
    if (!serializer)
        throw std::invalid_argument("A JSON service provider needs a serializer.");
    return serializer;
}

/// The message as the one type that a provider serves.
template <class Expected>
Expected& expect(Message* message, const char* service)
{
    if (auto* expected = dynamic_cast<Expected*>(message))
        return *expected;
    const std::string found = message ? typeid(*message).name() : "nothing";
    throw std::invalid_argument(std::string("The JSON ") + service + " takes " + typeid(Expected).name() +
                                " but found " + found + ".");
}

} // namespace

JsonSerializerServiceProvider::JsonSerializerServiceProvider(std::shared_ptr<JsonSerializer> serializer)
    : serializer_(checked(std::move(serializer)))
{}

MessageFuture JsonSerializerServiceProvider::handleOpaque(std::unique_ptr<Message>&& message, Address&& address,
                                                          std::shared_ptr<Context>&& context)
{
    try {
        const auto& request = expect<SerializeMessage>(message.get(), "serializer");
        if (!request.message)
            throw JsonError("there is no message to serialize");
        return answerOrForward(std::make_unique<JsonMessage>(serializer_->write(*request.message)), std::move(address),
                               std::move(context));
    } catch (...) {
        return makeFailedFuture<std::unique_ptr<Message>>(std::current_exception());
    }
}

JsonDeserializerServiceProvider::JsonDeserializerServiceProvider(std::shared_ptr<JsonSerializer> serializer)
    : serializer_(checked(std::move(serializer)))
{}

MessageFuture JsonDeserializerServiceProvider::handleOpaque(std::unique_ptr<Message>&& message, Address&& address,
                                                            std::shared_ptr<Context>&& context)
{
    try {
        const auto& request = expect<JsonMessage>(message.get(), "deserializer");
        return answerOrForward(serializer_->read(request.text), std::move(address), std::move(context));
    } catch (...) {
        return makeFailedFuture<std::unique_ptr<Message>>(std::current_exception());
    }
}

} // namespace connector::json
