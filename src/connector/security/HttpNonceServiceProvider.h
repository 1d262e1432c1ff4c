#pragma once

#include <memory>

#include "connector/configuration/Configuration.h"
#include "connector/http/HttpServiceProvider.h"
#include "connector/security/AccessGrants.h"
#include "connector/security/Credentials.h"
#include "connector/security/NonceService.h"
#include "connector/security/PageAccess.h"

namespace connector::security::v1 {

/// The guard: lets a request on only with a bearer token, a page's key or a ticket; with a browser's cookie alone only
/// to files. The first request of a browser brings a nonce in its query instead; it is answered with the cookie, the
/// way to the same URL without the nonce, and in its fragment a code that is worth a page's key. Everything else gets
/// the one 401; see docs/http.md for the rules. The localhost filter has to stand before it: it refuses foreign pages,
/// and says under what kind of name the request came.
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
    std::unique_ptr<http::HttpResponse> check(http::HttpRequest& request, bool forFile);
    std::unique_ptr<http::HttpResponse> enter(const http::HttpRequest& request, std::string_view nonce, bool byToken);
    bool hasCookie(const http::HttpRequest& request);
    std::string newCookie(const http::HttpRequest& request);

    const std::shared_ptr<NonceService> nonces_;
    const Credentials credentials_;
    AccessGrants browsers_;
    PageAccess pages_;
};

} // namespace connector::security::v1
