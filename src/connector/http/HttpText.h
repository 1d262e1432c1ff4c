#pragma once

#include <string>
#include <string_view>

#include "connector/Export.h"

namespace connector::http {

/// RFC 9110 §5.6.2.
CONNECTOR_API bool isToken(std::string_view text) noexcept;
/// No control characters but the tab; bytes above ASCII are let through (RFC 9110 §5.5).
CONNECTOR_API bool isFieldValue(std::string_view text) noexcept;
/// ASCII only.
CONNECTOR_API bool equalsIgnoringCase(std::string_view left, std::string_view right) noexcept;
CONNECTOR_API bool containsIgnoringCase(std::string_view text, std::string_view part) noexcept;
CONNECTOR_API std::string toLower(std::string_view text);
/// Without spaces and tabs at both ends.
CONNECTOR_API std::string_view trimmed(std::string_view text) noexcept;
/// One element of a comma-separated list is `token`, without letter case.
CONNECTOR_API bool listHas(std::string_view list, std::string_view token) noexcept;
/// For error texts: at most 60 bytes, control and 8-bit characters as "?".
CONNECTOR_API std::string printable(std::string_view text);

/// "host" or "host:port" taken apart; host is a name, an IPv4 address or an IPv6 address in brackets.
struct CONNECTOR_API Authority
{
    std::string host; ///< in lower case
    int port = -1;    ///< -1 when it is left out

    /// False for anything else: empty, user information, an empty port or one above 65535.
    static bool parse(std::string_view text, Authority& authority);
};

} // namespace connector::http
