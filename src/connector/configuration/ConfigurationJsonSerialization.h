#pragma once

#include <memory>

#include "connector/json/JsonSerializer.h"

namespace connector::configuration {

/// The JSON forms of GetConfiguration, SetConfiguration and ConfigurationValues.
class CONNECTOR_API ConfigurationJsonSerialization final : public json::JsonSerialization
{
public:
    explicit ConfigurationJsonSerialization(std::shared_ptr<json::JsonSerializer> serializer);
    ~ConfigurationJsonSerialization() override;
};

} // namespace connector::configuration
