#include "connector/http/client/Url.h"

#include <algorithm>
#include <stdexcept>
#include <vector>

#include <arpa/inet.h>

#include "connector/http/HttpText.h"

namespace connector::http::client {

namespace {

constexpr std::size_t kMaxUrlBytes = 16u << 10;

/// For error texts: no query, no user information, no more than a line.
std::string shownText(std::string_view text)
{
    std::string shown(text.substr(0, text.find_first_of("?#")));
    const auto slashes = shown.find("//");
    const auto begin = slashes == std::string::npos ? 0 : slashes + 2;
    const auto end = std::min(shown.find('/', begin), shown.size());
    const auto at = shown.substr(0, end).rfind('@');
    if (at != std::string::npos && at >= begin)
        shown.replace(begin, at - begin, "...");
    if (shown.size() > 200)
        shown = shown.substr(0, 200) + "...";
    for (char& c : shown)
        if (c < 0x20 || c > 0x7e)
            c = '?';
    return shown;
}

[[noreturn]] void refuse(const std::string& why, std::string_view text)
{
    throw std::invalid_argument(why + ": \"" + shownText(text) + "\"");
}

bool isUrlCharacter(char c) noexcept { return c > 0x20 && c < 0x7f && c != '\\' && c != '"' && c != '<' && c != '>'; }

bool isSchemeCharacter(char c) noexcept
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '+' || c == '-' ||
           c == '.';
}

bool hasScheme(std::string_view text)
{
    const auto colon = text.find(':');
    return colon != std::string_view::npos && colon > 0 &&
           std::all_of(text.begin(), text.begin() + static_cast<std::ptrdiff_t>(colon), isSchemeCharacter);
}

std::string encoded(std::string_view reference)
{
    constexpr char kDigits[] = "0123456789ABCDEF";
    std::string result;
    for (const char c : reference) {
        const auto byte = static_cast<unsigned char>(c);
        if (isUrlCharacter(c) || byte < 0x20 || byte == 0x7f || c == '\\')
            result += c; // what `parse` refuses is left for it to name
        else
            result += {'%', kDigits[byte >> 4], kDigits[byte & 15]};
    }
    return result;
}

/// RFC 3986 §5.2.4; `path` starts with "/".
std::string withoutDots(std::string_view path)
{
    std::vector<std::string_view> segments;
    bool folder = false;
    for (std::size_t begin = 1; begin <= path.size();) {
        const auto end = std::min(path.find('/', begin), path.size());
        const auto segment = path.substr(begin, end - begin);
        folder = segment == "." || segment == "..";
        if (segment == ".." && !segments.empty())
            segments.pop_back();
        else if (!folder)
            segments.push_back(segment);
        begin = end + 1;
    }
    std::string result;
    for (const auto segment : segments)
        result.append("/").append(segment);
    return folder || result.empty() ? result + "/" : result;
}

} // namespace

Url Url::parse(std::string_view text)
{
    if (text.size() > kMaxUrlBytes)
        refuse("URL of more than " + std::to_string(kMaxUrlBytes) + " bytes", text);
    if (!std::all_of(text.begin(), text.end(), isUrlCharacter))
        refuse("Character in a URL that must be percent-encoded", text);

    Url url;
    const auto colon = text.find("://");
    const std::string_view scheme = text.substr(0, colon == std::string_view::npos ? 0 : colon);
    url.secure = equalsIgnoringCase(scheme, "https");
    if (!url.secure && !equalsIgnoringCase(scheme, "http"))
        refuse("Not an http or https URL", text);

    std::string_view rest = text.substr(colon + 3);
    rest = rest.substr(0, rest.find('#'));
    const auto end = std::min(rest.find_first_of("/?"), rest.size());
    const std::string_view place = rest.substr(0, end);
    if (place.find('@') != std::string_view::npos)
        refuse("User information in a URL", text);
    if (place.empty() || place.front() == ':')
        refuse("URL without a host", text);
    Authority authority;
    if (!Authority::parse(place, authority) || authority.port == 0)
        refuse("No such host or port", text);
    url.host = std::move(authority.host);
    in6_addr address{};
    if (url.host.front() == '[' && ::inet_pton(AF_INET6, url.bareHost().c_str(), &address) != 1)
        refuse("No such host or port", text);
    url.port = authority.port > 0 ? static_cast<std::uint16_t>(authority.port) : url.secure ? 443 : 80;
    url.target = rest.substr(end);
    if (url.target.empty() || url.target.front() != '/')
        url.target.insert(0, "/");
    return url;
}

Url Url::resolve(std::string_view reference) const
{
    const std::string wanted = encoded(trimmed(reference));
    const std::string scheme = secure ? "https:" : "http:";
    const std::string origin = scheme + "//" + authority();
    if (hasScheme(wanted))
        return parse(wanted);
    if (wanted.starts_with("//"))
        return parse(scheme + wanted);

    const std::string path = target.substr(0, target.find('?'));
    const auto split = std::min(wanted.find_first_of("?#"), wanted.size());
    const std::string wantedPath = wanted.substr(0, split);
    if (wantedPath.empty())
        return parse(origin + (wanted.starts_with('?') ? path + wanted : target));
    const std::string whole = wantedPath.front() == '/' ? wantedPath : path.substr(0, path.rfind('/') + 1) + wantedPath;
    return parse(origin + withoutDots(whole) + wanted.substr(split));
}

std::string Url::text() const { return (secure ? "https://" : "http://") + authority() + target; }

std::string Url::shown() const { return shownText(text()); }

std::string Url::authority() const { return port == (secure ? 443 : 80) ? host : endpoint(); }

std::string Url::endpoint() const { return host + ":" + std::to_string(port); }

std::string Url::bareHost() const { return host.front() == '[' ? host.substr(1, host.size() - 2) : host; }

bool Url::isAddress() const
{
    in_addr address{};
    return host.front() == '[' || ::inet_pton(AF_INET, host.c_str(), &address) == 1;
}

bool Url::sameOrigin(const Url& other) const
{
    return secure == other.secure && host == other.host && port == other.port;
}

} // namespace connector::http::client
