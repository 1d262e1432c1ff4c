#pragma once

#include <string>
#include <string_view>

#include "connector/Export.h"

namespace connector::http {

/// Decodes the path of a request target ("/a%20b") once and checks that every way of reading the result names the same
/// thing. Answers why it was refused, null when it was not:
/// broken percent encoding; an encoded NUL, "/" or "\"; a backslash, control character or ":"; bad UTF-8; an empty
/// segment (but the last); a segment that ends with a dot or a space, which covers "." and ".."; a device name of
/// Windows ("con", "lpt1.txt").
[[nodiscard]] CONNECTOR_API const char* decodePath(std::string_view raw, std::string& decoded);

} // namespace connector::http
