#pragma once

#include "connector/json/JsonSerializer.h"

namespace connector::http {

/// The JSON forms of the manager's messages: "OpenPort", "ClosePort", "ListPorts", "GetCounters" and their responses.
class CONNECTOR_API HttpManagerJsonSerialization final : public json::JsonSerialization
{
public:
    explicit HttpManagerJsonSerialization(std::shared_ptr<json::JsonSerializer> serializer);
};

} // namespace connector::http
