#pragma once

#include <string>
#include <string_view>

#include "connector/Export.h"

namespace connector::security::v1 {

/// The query parameter that carries an entry nonce.
inline constexpr std::string_view kNonceParameter = "nonce";

/// The value of the query's one parameter of this name, as sent; an empty text when there is none, or several.
CONNECTOR_API std::string_view oneParameter(std::string_view query, std::string_view name);
/// The same for "nonce".
inline std::string_view entryNonce(std::string_view query) { return oneParameter(query, kNonceParameter); }

/// Whether a text has the form of a nonce, and of a cookie's secret: 64 hexadecimal digits.
CONNECTOR_API bool isSecretText(std::string_view text) noexcept;

/// Where a browser goes on from a one-time URL: the path of `target` (as sent) and what else is in `query`. Always one
/// slash and then something that no browser takes for another host: no second slash or backslash follows, and
/// characters that browsers leave out are percent-encoded.
CONNECTOR_API std::string cleanLocation(std::string_view target, std::string_view query);

/// `baseUrl` with the nonce: "http://127.0.0.1:8080/" becomes "http://127.0.0.1:8080/?nonce=…". Throws
/// std::invalid_argument for what is no http or https URL, or has a query or fragment.
CONNECTOR_API std::string entryUrl(const std::string& baseUrl, std::string_view nonce);

} // namespace connector::security::v1
