#pragma once

#include <memory>

#include "connector/container/ContainerDispatcher.h"
#include "connector/json/JsonSerializer.h"

namespace connector::information::v1 {

/// The JSON form of the group's messages (docs/protocol.md).
class CONNECTOR_API InformationJsonSerialization final : public json::JsonSerialization
{
public:
    explicit InformationJsonSerialization(std::shared_ptr<json::JsonSerializer> serializer);
};

/// Maps the group's requests to its service.
class CONNECTOR_API InformationMessageMapProvider final : public container::v1::MessageMapProvider
{
public:
    InformationMessageMapProvider(std::shared_ptr<container::v1::ContainerDispatcher> dispatcher, Address address);
};

} // namespace connector::information::v1
