#pragma once

#include <memory>

#include "connector/configuration/Configuration.h"
#include "connector/http/HttpServiceProvider.h"
#include "connector/security/AccessGrants.h"
#include "connector/security/Credentials.h"
#include "connector/security/NonceService.h"

namespace connector::security::v1 {

/// The guard: lets a request on only with a bearer token or a browser's cookie. The first request of a browser brings
/// a nonce in its query instead; it is answered with the cookie and the way to the same URL without the nonce.
/// Everything else gets the one 401; see docs/http.md for the rules. The localhost filter has to stand before it: it
/// looks at whether Origin is there, not whose it is.
class CONNECTOR_API HttpNonceServiceProvider final : public http::HttpServiceProvider
{
public:
    /// The cookie's name, before the port.
    static constexpr const char* kCookieName = "VENDRAACCESS";

    /// Reads security.accessIdleMinutes, security.accessKeyFile and security.maxBrowsers.
    HttpNonceServiceProvider(std::shared_ptr<NonceService> nonces,
                             std::shared_ptr<configuration::Configuration> configuration);

    MessageFuture handleHttp(std::unique_ptr<http::HttpRequest>&& request, Address&& rest,
                             std::shared_ptr<Context>&& context) override;

private:
    /// The answer, or null to let the request on.
    std::unique_ptr<http::HttpResponse> check(const http::HttpRequest& request);
    std::unique_ptr<http::HttpResponse> enter(const http::HttpRequest& request, std::string_view nonce, bool known);
    bool hasCookie(const http::HttpRequest& request);

    const std::shared_ptr<NonceService> nonces_;
    const Credentials credentials_;
    AccessGrants grants_;
};

} // namespace connector::security::v1
