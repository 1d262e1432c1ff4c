#pragma once

#include <memory>

#include "connector/container/ContainerDispatcher.h"
#include "connector/json/JsonSerializer.h"

namespace connector::shadow_files::v1 {

/// The JSON form of LoadClientTypeFile, of the mobile configuration's messages and of their answers (docs/protocol.md).
class CONNECTOR_API ShadowJsonSerialization final : public json::JsonSerialization
{
public:
    explicit ShadowJsonSerialization(std::shared_ptr<json::JsonSerializer> serializer);
};

/// Lets every container pass the address before and after its messages are served, and sends LoadClientTypeFile through
/// it to "connector/v1/shadowFiles".
class CONNECTOR_API ShadowMessageMapProvider final : public container::v1::MessageMapProvider
{
public:
    ShadowMessageMapProvider(std::shared_ptr<container::v1::ContainerDispatcher> dispatcher, Address address);
};

/// Sends the messages of the mobile configuration to it, one by one: they keep their place among a container's others.
class CONNECTOR_API MobileConfigurationMessageMapProvider final : public container::v1::MessageMapProvider
{
public:
    MobileConfigurationMessageMapProvider(std::shared_ptr<container::v1::ContainerDispatcher> dispatcher,
                                          Address address);
};

} // namespace connector::shadow_files::v1
