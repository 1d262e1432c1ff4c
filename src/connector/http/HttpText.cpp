#include "connector/http/HttpText.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdint>

namespace connector::http {

namespace {

constexpr bool isAlpha(char c) noexcept { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }

constexpr bool isDigit(char c) noexcept { return c >= '0' && c <= '9'; }

constexpr char lower(char c) noexcept { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

constexpr std::array<bool, 256> tokenCharacters() noexcept
{
    std::array<bool, 256> table{};
    for (int c = 0; c < 128; ++c)
        table[static_cast<std::size_t>(c)] = isAlpha(static_cast<char>(c)) || isDigit(static_cast<char>(c));
    for (char c : {'!', '#', '$', '%', '&', '\'', '*', '+', '-', '.', '^', '_', '`', '|', '~'})
        table[static_cast<unsigned char>(c)] = true;
    return table;
}

constexpr auto kToken = tokenCharacters();

bool isIpv6Literal(std::string_view text)
{
    // The exact form does not matter here: only loopback and configured literals are let through later.
    return text.size() >= 2 && text.size() <= 45 && std::all_of(text.begin(), text.end(), [](char c) {
               return isDigit(c) || (lower(c) >= 'a' && lower(c) <= 'f') || c == ':' || c == '.';
           });
}

bool isHostName(std::string_view text)
{
    return !text.empty() && text.size() <= 253 && text.front() != '.' &&
           std::all_of(text.begin(), text.end(),
                       [](char c) { return isAlpha(c) || isDigit(c) || c == '-' || c == '.' || c == '_'; });
}

} // namespace

bool isToken(std::string_view text) noexcept
{
    return !text.empty() &&
           std::all_of(text.begin(), text.end(), [](char c) { return kToken[static_cast<unsigned char>(c)]; });
}

bool isFieldValue(std::string_view text) noexcept
{
    return std::all_of(text.begin(), text.end(), [](char c) {
        const auto byte = static_cast<unsigned char>(c);
        return (byte >= 0x20 && byte != 0x7f) || byte == '\t';
    });
}

bool equalsIgnoringCase(std::string_view left, std::string_view right) noexcept
{
    return left.size() == right.size() &&
           std::equal(left.begin(), left.end(), right.begin(), [](char a, char b) { return lower(a) == lower(b); });
}

bool containsIgnoringCase(std::string_view text, std::string_view part) noexcept
{
    return std::search(text.begin(), text.end(), part.begin(), part.end(),
                       [](char a, char b) { return lower(a) == lower(b); }) != text.end();
}

std::string toLower(std::string_view text)
{
    std::string result(text);
    std::transform(result.begin(), result.end(), result.begin(), lower);
    return result;
}

std::string_view trimmed(std::string_view text) noexcept
{
    const auto first = text.find_first_not_of(" \t");
    if (first == std::string_view::npos)
        return {};
    return text.substr(first, text.find_last_not_of(" \t") - first + 1);
}

bool listHas(std::string_view list, std::string_view token) noexcept
{
    while (!list.empty()) {
        const auto comma = list.find(',');
        if (equalsIgnoringCase(trimmed(list.substr(0, comma)), token))
            return true;
        if (comma == std::string_view::npos)
            break;
        list.remove_prefix(comma + 1);
    }
    return false;
}

std::string printable(std::string_view text)
{
    std::string result(text.substr(0, 60));
    for (char& c : result)
        if (c < 0x20 || c > 0x7e)
            c = '?';
    if (text.size() > 60)
        result += "...";
    return result;
}

bool Authority::parse(std::string_view text, Authority& authority)
{
    std::string_view host = text;
    std::string_view rest;
    if (!text.empty() && text.front() == '[') {
        const auto close = text.find(']');
        if (close == std::string_view::npos || !isIpv6Literal(text.substr(1, close - 1)))
            return false;
        host = text.substr(0, close + 1);
        rest = text.substr(close + 1);
    } else {
        const auto colon = text.find(':');
        host = text.substr(0, colon);
        if (colon != std::string_view::npos)
            rest = text.substr(colon);
        if (!isHostName(host))
            return false;
    }

    authority.host = toLower(host);
    authority.port = -1;
    if (rest.empty())
        return true;
    const std::string_view digits = rest.substr(1);
    if (rest.front() != ':' || digits.empty() || digits.size() > 5 ||
        !std::all_of(digits.begin(), digits.end(), isDigit))
        return false;
    std::from_chars(digits.data(), digits.data() + digits.size(), authority.port);
    return authority.port <= 65535;
}

} // namespace connector::http
