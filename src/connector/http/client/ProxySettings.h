#pragma once

#include <optional>
#include <string>

#include "connector/Export.h"
#include "connector/http/client/Url.h"

namespace connector::http::client {

struct Proxy
{
    Url url;                   ///< scheme, host and port count
    std::string authorization; ///< for Proxy-Authorization; may be empty
};

/// What the environment says about proxies: http_proxy (in lower case only: a CGI program gets HTTP_PROXY from its
/// client), https_proxy or HTTPS_PROXY, no_proxy or NO_PROXY; of two the one in lower case.
struct CONNECTOR_API ProxySettings
{
    std::string http;
    std::string https;
    std::string exceptions;

    static ProxySettings fromEnvironment();

    /// Which proxy to ask for a URL; none for the server itself. Throws std::runtime_error when a variable does not
    /// hold "[http://][user:password@]host[:port]".
    std::optional<Proxy> forUrl(const Url& url) const;
};

} // namespace connector::http::client
