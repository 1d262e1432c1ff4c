#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "connector/Export.h"
#include "connector/http/HttpMessage.h"

namespace connector::http {

/// The values of a request's cookies of this name, without quotes. A browser sends several of different paths (RFC 6265
/// §5.4), and any server on another port of the host may have set as many as there is room for: all have to be looked
/// at. They are valid as long as the headers.
CONNECTOR_API std::vector<std::string_view> cookieValues(const Headers& headers, std::string_view name);

/// The name of a cookie that is for one port ("NAME_8080"; "NAME" for port 0): browsers send cookies of one host to all
/// of its ports, so that servers there would overwrite each other's.
CONNECTOR_API std::string cookieNameOfPort(std::string_view name, std::uint16_t port);

} // namespace connector::http
