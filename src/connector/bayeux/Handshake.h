#pragma once

#include <optional>
#include <string>

#include <Poco/JSON/Object.h>

#include "connector/bayeux/Replies.h"

namespace connector::bayeux {

inline constexpr char kVersion[] = "1.0";
/// JSON.
inline constexpr char kConnectionTypes[] = R"(["websocket","long-polling"])";

bool isConnectionType(const std::string& name);
/// Whether the client and this server have a version and a connection type in common; none when they have.
std::optional<Refusal> checkHandshake(const Poco::JSON::Object& message);
/// "ext":{"ack":true}, or an object that says so.
bool asksForAcknowledgement(const Poco::JSON::Object& message);

} // namespace connector::bayeux
