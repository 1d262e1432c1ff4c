#include "connector/http/client/ProxySettings.h"

#include <algorithm>
#include <cstdlib>
#include <sstream>
#include <stdexcept>

#include <Poco/Base64Encoder.h>
#include <Poco/URI.h>

#include "connector/http/HttpText.h"

namespace connector::http::client {

namespace {

std::string variable(const char* name, const char* otherName = nullptr)
{
    const char* value = std::getenv(name);
    if ((!value || !*value) && otherName)
        value = std::getenv(otherName);
    return value ? value : "";
}

std::string basic(const std::string& userInfo)
{
    std::string decoded;
    Poco::URI::decode(userInfo, decoded);
    std::ostringstream text;
    Poco::Base64Encoder encoder(text);
    encoder.rdbuf()->setLineLength(0);
    encoder << decoded;
    encoder.close();
    return "Basic " + text.str();
}

Proxy parseProxy(const std::string& value, const char* name)
{
    // The value may hold a password, so that no text repeats it.
    const std::string complaint = std::string("The proxy in ") + name + " is not of the form http://host:port";
    Proxy proxy;
    std::string place = value;
    const auto slashes = place.find("://");
    if (slashes != std::string::npos) {
        if (!equalsIgnoringCase(place.substr(0, slashes), "http"))
            throw std::runtime_error(complaint);
        place.erase(0, slashes + 3);
    }
    place.erase(std::min(place.find_first_of("/?#"), place.size()));
    try {
        if (const auto at = place.rfind('@'); at != std::string::npos) {
            proxy.authorization = basic(place.substr(0, at));
            place.erase(0, at + 1);
        }
        proxy.url = Url::parse("http://" + place);
    } catch (const std::exception&) {
        throw std::runtime_error(complaint);
    }
    return proxy;
}

/// "host", ".domain", "*.domain", "host:port", "::1" or "*".
bool excepts(std::string_view entry, const Url& url)
{
    if (entry == "*")
        return true;
    if (entry.starts_with("*."))
        entry.remove_prefix(1);
    if (entry.starts_with("."))
        entry.remove_prefix(1);
    const bool bareIpv6 = !entry.starts_with("[") && std::count(entry.begin(), entry.end(), ':') > 1;
    Authority authority;
    if (!Authority::parse(bareIpv6 ? "[" + std::string(entry) + "]" : std::string(entry), authority))
        return false;
    if (authority.port >= 0 && authority.port != url.port)
        return false;
    return url.host == authority.host || (!url.isAddress() && url.host.ends_with("." + authority.host));
}

} // namespace

ProxySettings ProxySettings::fromEnvironment()
{
    return {variable("http_proxy"), variable("https_proxy", "HTTPS_PROXY"), variable("no_proxy", "NO_PROXY")};
}

std::optional<Proxy> ProxySettings::forUrl(const Url& url) const
{
    const std::string& value = url.secure ? https : http;
    if (value.empty())
        return std::nullopt;
    constexpr const char* kSeparators = ", \t";
    std::string_view left = exceptions;
    while (!left.empty()) {
        const auto end = std::min(left.find_first_of(kSeparators), left.size());
        if (end > 0 && excepts(left.substr(0, end), url))
            return std::nullopt;
        left.remove_prefix(std::min(end + 1, left.size()));
    }
    return parseProxy(value, url.secure ? "https_proxy" : "http_proxy");
}

} // namespace connector::http::client
