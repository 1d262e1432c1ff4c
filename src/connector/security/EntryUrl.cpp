#include "connector/security/EntryUrl.h"

#include <algorithm>
#include <stdexcept>

#include "connector/http/HttpText.h"

namespace connector::security::v1 {

namespace {

template <class Visit>
void forEachParameter(std::string_view query, Visit visit)
{
    while (!query.empty()) {
        const auto end = query.find('&');
        visit(query.substr(0, end));
        query.remove_prefix(end == std::string_view::npos ? query.size() : end + 1);
    }
}

bool isParameter(std::string_view parameter, std::string_view name)
{
    return parameter.size() > name.size() && parameter.starts_with(name) && parameter[name.size()] == '=';
}

/// Browsers drop tabs, take backslashes for slashes, and end the URL at "#".
void appendEncoded(std::string& text, std::string_view raw)
{
    constexpr char kDigits[] = "0123456789ABCDEF";
    for (const char c : raw) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte > 0x20 && byte < 0x7f && c != '\\' && c != '#' && c != '"' && c != '<' && c != '>')
            text += c;
        else
            text += {'%', kDigits[byte >> 4], kDigits[byte & 15]};
    }
}

[[noreturn]] void refuseBaseUrl(const std::string& url, const char* problem)
{
    throw std::invalid_argument("The base URL \"" + http::printable(url) + "\" " + problem + ".");
}

} // namespace

std::string_view oneParameter(std::string_view query, std::string_view name)
{
    std::string_view found;
    int count = 0;
    forEachParameter(query, [&](std::string_view parameter) {
        if (!isParameter(parameter, name))
            return;
        ++count;
        found = parameter.substr(name.size() + 1);
    });
    return count == 1 ? found : std::string_view();
}

bool isSecretText(std::string_view text) noexcept
{
    return text.size() == 64 && std::all_of(text.begin(), text.end(), [](char c) {
               return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
           });
}

std::string cleanLocation(std::string_view target, std::string_view query)
{
    std::string_view path = target.substr(0, target.find('?'));
    if (path.empty() || path.front() != '/')
        path = "/";
    path.remove_prefix(std::min(path.find_first_not_of("/\\"), path.size()));
    std::string location = "/";
    appendEncoded(location, path);

    char separator = '?';
    forEachParameter(query, [&](std::string_view parameter) {
        if (isParameter(parameter, kNonceParameter))
            return;
        location += separator;
        appendEncoded(location, parameter);
        separator = '&';
    });
    return location;
}

std::string entryUrl(const std::string& baseUrl, std::string_view nonce)
{
    const auto mark = baseUrl.find("://");
    const std::string scheme = http::toLower(baseUrl.substr(0, mark));
    if (mark == std::string::npos || (scheme != "http" && scheme != "https"))
        refuseBaseUrl(baseUrl, "does not begin with http:// or https://");
    const auto rest = std::string_view(baseUrl).substr(mark + 3);
    const auto authority = rest.substr(0, rest.find('/'));
    http::Authority parsed;
    if (!http::Authority::parse(authority, parsed))
        refuseBaseUrl(baseUrl, "names no host and port");
    const auto path = rest.substr(authority.size());
    if (!std::all_of(path.begin(), path.end(),
                     [](char c) { return c > 0x20 && c < 0x7f && c != '?' && c != '#' && c != '\\'; }))
        refuseBaseUrl(baseUrl, "has more than a path after its host");
    return baseUrl + (path.empty() ? "/" : "") + "?" + std::string(kNonceParameter) + "=" + std::string(nonce);
}

} // namespace connector::security::v1
