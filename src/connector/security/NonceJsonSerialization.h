#pragma once

#include "connector/json/JsonSerializer.h"

namespace connector::security::v1 {

/// The JSON forms of "CreateNonce", "RedeemNonce", "CreateEntryUrl" and their responses.
class CONNECTOR_API NonceJsonSerialization final : public json::JsonSerialization
{
public:
    explicit NonceJsonSerialization(std::shared_ptr<json::JsonSerializer> serializer);
};

} // namespace connector::security::v1
