#pragma once

#include <memory>

#include "connector/json/JsonSerializer.h"
#include "connector/json/OpaqueServiceProvider.h"

namespace connector::json {

/// Answers a SerializeMessage with a JsonMessage.
class CONNECTOR_API JsonSerializerServiceProvider final : public OpaqueServiceProvider
{
public:
    explicit JsonSerializerServiceProvider(std::shared_ptr<JsonSerializer> serializer);
    MessageFuture handleOpaque(std::unique_ptr<Message>&& message, Address&& address,
                               std::shared_ptr<Context>&& context) override;

private:
    const std::shared_ptr<JsonSerializer> serializer_;
};

/// Answers a JsonMessage with the typed message it describes.
class CONNECTOR_API JsonDeserializerServiceProvider final : public OpaqueServiceProvider
{
public:
    explicit JsonDeserializerServiceProvider(std::shared_ptr<JsonSerializer> serializer);
    MessageFuture handleOpaque(std::unique_ptr<Message>&& message, Address&& address,
                               std::shared_ptr<Context>&& context) override;

private:
    const std::shared_ptr<JsonSerializer> serializer_;
};

} // namespace connector::json
