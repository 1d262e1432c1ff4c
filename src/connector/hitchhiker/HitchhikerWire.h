#pragma once

#include <memory>

#include "connector/container/ContainerDispatcher.h"
#include "connector/json/JsonSerializer.h"

namespace connector::hitchhiker::v1 {

/// The JSON form of QueueHitchhiker, its answer and Hitchhiker (docs/protocol.md).
class CONNECTOR_API HitchhikerJsonSerialization final : public json::JsonSerialization
{
public:
    explicit HitchhikerJsonSerialization(std::shared_ptr<json::JsonSerializer> serializer);
};

/// Lets the answers of every container pass the address, and sends a container's QueueHitchhiker messages there
/// together.
class CONNECTOR_API HitchhikerMessageMapProvider final : public container::v1::MessageMapProvider
{
public:
    HitchhikerMessageMapProvider(std::shared_ptr<container::v1::ContainerDispatcher> dispatcher, Address address);
};

} // namespace connector::hitchhiker::v1
