#pragma once

#include <memory>

#include <Poco/JSON/Object.h>

#include "connector/container/ContainerDispatcher.h"
#include "connector/json/JsonSerializer.h"
#include "platform/rqe/Browsing.h"

namespace connector::desktop::v1 {

/// The JSON form of the desktop's messages and their answers (docs/interpreter.md).
class CONNECTOR_API DesktopJsonSerialization final : public json::JsonSerialization
{
public:
    explicit DesktopJsonSerialization(std::shared_ptr<json::JsonSerializer> serializer);
};

/// What the members of VariableChangeResponse say.
Poco::JSON::Object::Ptr encodeChanges(const rqe::VariableChanges& changes);

/// Maps the desktop's messages to the provider at `desktop`.
class CONNECTOR_API DesktopMessageMapProvider final : public container::v1::MessageMapProvider
{
public:
    DesktopMessageMapProvider(std::shared_ptr<container::v1::ContainerDispatcher> dispatcher, Address desktop);
};

} // namespace connector::desktop::v1
