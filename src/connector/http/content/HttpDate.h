#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "connector/Export.h"

namespace connector::http::content {

/// "Sun, 06 Nov 1994 08:49:37 GMT" for seconds since 1970; "" outside the years 1970 to 9999. No locale has a part in
/// it.
CONNECTOR_API std::string formatHttpDate(std::int64_t seconds);

/// Reads the three forms of RFC 9110 §5.6.7. A year of two digits is one of the 50 years after `now` or of those
/// before. None for anything else.
CONNECTOR_API std::optional<std::int64_t> parseHttpDate(std::string_view text, std::int64_t now);

} // namespace connector::http::content
