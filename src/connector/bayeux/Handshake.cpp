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

std::optional<Refusal> checkVersions(const json::Object& message)
{
    const std::string text = json::requireString(message, "version");
    const auto version = readVersion(text);
    if (!version || *version < kOurs)
        return Refusal{400, text, "Not a supported version"};
    const std::string minimumText = json::optionalString(message, "minimumVersion", kVersion);
    const auto minimum = readVersion(minimumText);
    if (!minimum || *minimum > kOurs)
        return Refusal{400, minimumText, "Not a supported minimum version"};
    return std::nullopt;
}

} // namespace

bool isConnectionType(const std::string& name) { return name == "long-polling" || name == "websocket"; }

std::optional<Refusal> checkHandshake(const Poco::JSON::Object& message)
{
    try {
        if (auto refusal = checkVersions(message))
            return refusal;
        std::string offered;
        for (const auto& type : json::requireStrings(message, "supportedConnectionTypes")) {
            if (isConnectionType(type))
                return std::nullopt;
            offered.append(offered.empty() ? "" : ",").append(type);
        }
        return Refusal{406, offered, "No supported connection type"};
    } catch (const json::JsonError& error) {
        return Refusal{400, error.what(), "A handshake needs version and supportedConnectionTypes"};
    }
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
