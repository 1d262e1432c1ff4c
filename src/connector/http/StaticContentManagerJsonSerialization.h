#pragma once

#include "connector/json/JsonSerializer.h"

namespace connector::http {

/// The JSON forms of the content manager's messages: "AddContentRoot", "RemoveContentRoot", "ListContentRoots" and
/// their responses.
class CONNECTOR_API StaticContentManagerJsonSerialization final : public json::JsonSerialization
{
public:
    explicit StaticContentManagerJsonSerialization(std::shared_ptr<json::JsonSerializer> serializer);
};

} // namespace connector::http
