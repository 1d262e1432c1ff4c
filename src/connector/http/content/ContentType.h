#pragma once

#include <string_view>

#include "connector/Export.h"

namespace connector::http::content {

struct ContentType
{
    std::string_view ending; ///< without a dot, in lower case
    std::string_view type;   ///< value of Content-Type
    bool compressible;       ///< worth a precompressed sibling
};

/// By what follows the name's last dot, without letter case; application/octet-stream for an unknown ending.
CONNECTOR_API const ContentType& contentTypeOf(std::string_view name) noexcept;

} // namespace connector::http::content
