#include "connector/bayeux/Handshake.h"

#include <charconv>

#include "connector/json/JsonFields.h"

namespace connector::bayeux {

namespace {

using Version = std::pair<unsigned, unsigned>;
constexpr Version kOurs{1, 0};

/// "1.0beta" is 1.0, "1" too.
std::optional<Version> readVersion(const std::string& text)
{
    Version version{0, 0};
    const char* const end = text.data() + text.size();
    auto read = std::from_chars(text.data(), end, version.first);
    if (read.ec != std::errc())
        return std::nullopt;
    if (read.ptr != end && *read.ptr == '.' && std::from_chars(read.ptr + 1, end, version.second).ec != std::errc())
        return std::nullopt;
    return version;
}

/// Nullopt for a member that is no string; `fallback` for one that is not there.
std::optional<std::string> stringOf(const json::Object& message, const std::string& name, const char* fallback)
{
    try {
        return json::optionalString(message, name, fallback);
    } catch (const json::JsonError&) {
        return std::nullopt;
    }
}

std::optional<Refusal> checkVersions(const json::Object& message)
{
    const auto text = stringOf(message, "version", "");
    if (!text || text->empty())
        return Refusal{400, "version", "A handshake needs a version"};
    const auto version = readVersion(*text);
    if (!version || *version < kOurs)
        return Refusal{400, *text, "Not a supported version"};
    const auto minimumText = stringOf(message, "minimumVersion", kVersion);
    if (!minimumText)
        return Refusal{400, "minimumVersion", "A version is a string"};
    const auto minimum = readVersion(*minimumText);
    if (!minimum || *minimum > kOurs)
        return Refusal{400, *minimumText, "Not a supported minimum version"};
    return std::nullopt;
}

std::optional<Refusal> checkConnectionTypes(const json::Object& message)
{
    std::string offered;
    try {
        for (const auto& type : json::requireStrings(message, "supportedConnectionTypes")) {
            if (isConnectionType(type))
                return std::nullopt;
            offered.append(offered.empty() ? "" : ",").append(type);
        }
    } catch (const json::JsonError&) {
        return Refusal{400, "supportedConnectionTypes", "A handshake needs an array of connection types"};
    }
    return Refusal{406, offered, "No supported connection type"};
}

} // namespace

bool isConnectionType(const std::string& name) { return name == "long-polling" || name == "websocket"; }

std::optional<Refusal> checkHandshake(const Poco::JSON::Object& message)
{
    auto refusal = checkVersions(message);
    return refusal ? refusal : checkConnectionTypes(message);
}

bool asksForAcknowledgement(const Poco::JSON::Object& message)
{
    try {
        const auto ext = json::optionalObject(message, "ext");
        if (!ext || !ext->has("ack"))
            return false;
        const auto ack = ext->get("ack");
        if (ack.type() == typeid(bool))
            return ack.extract<bool>();
        return json::optionalBool(*json::asObject(ack), "enabled", false);
    } catch (const json::JsonError&) {
        return false;
    }
}

} // namespace connector::bayeux
