#pragma once

#include <string_view>
#include <vector>

#include "connector/Export.h"
#include "connector/http/HttpMessage.h"

namespace connector::http {

/// The values of a request's cookies of this name (RFC 6265 §5.4: a browser may send several, of different paths), at
/// most four, without quotes. They are valid as long as the headers.
CONNECTOR_API std::vector<std::string_view> cookieValues(const Headers& headers, std::string_view name);

} // namespace connector::http
