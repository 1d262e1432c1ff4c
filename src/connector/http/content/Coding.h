#pragma once

#include "connector/Export.h"
#include "connector/http/HttpMessage.h"

namespace connector::http::content {

/// How the bytes of a file stand for its content.
enum class Coding
{
    identity,
    brotli,
    gzip
};

/// Codings that a client takes, besides identity.
struct Codings
{
    bool brotli = false;
    bool gzip = false;
};

/// By Accept-Encoding; a coding with q=0 is refused, "*" stands for those that are not named.
CONNECTOR_API Codings acceptedCodings(const Headers& headers) noexcept;

} // namespace connector::http::content
