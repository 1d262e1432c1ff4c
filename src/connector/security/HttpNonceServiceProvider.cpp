#include "connector/security/HttpNonceServiceProvider.h"

#include "connector/core/Connector.h"
#include "connector/http/Cookies.h"
#include "connector/http/WebSocket.h"
#include "connector/security/EntryUrl.h"
#include "connector/security/NonceGeneratorHelper.h"

namespace connector::security::v1 {
namespace {

bool onlyReads(const http::HttpRequest& request)
{
    return request.method == "GET" || request.method == "HEAD" || request.method == "OPTIONS";
}

/// A cookie goes along with whatever makes the browser ask, so the browser has to say which page did, where that
/// matters. The localhost filter has compared what it says.
bool saysWhoAsks(const http::HttpRequest& request)
{
    const bool hasOrigin = request.headers.find("Origin") != nullptr;
    if (http::asksForWebSocket(request))
        return hasOrigin;
    return onlyReads(request) || hasOrigin || request.headers.find("Sec-Fetch-Site");
}

} // namespace

HttpNonceServiceProvider::HttpNonceServiceProvider(std::shared_ptr<NonceService> nonces,
                                                   std::shared_ptr<configuration::Configuration> configuration)
    : nonces_(std::move(nonces)), credentials_(*configuration),
      grants_(static_cast<std::size_t>(configuration->getInteger("security.maxBrowsers")),
              std::chrono::minutes(configuration->getInteger("security.accessIdleMinutes")))
{}

MessageFuture HttpNonceServiceProvider::handleHttp(std::unique_ptr<http::HttpRequest>&& request, Address&& rest,
                                                   std::shared_ptr<Context>&& context)
{
    if (auto answer = check(*request))
        return makeReadyFuture<std::unique_ptr<Message>>(std::move(answer));
    request->admit();
    auto connector = context->connector();
    return connector->handle(std::move(request), std::move(rest), std::move(context));
}

std::unique_ptr<http::HttpResponse> HttpNonceServiceProvider::check(const http::HttpRequest& request)
{
    const bool byToken = credentials_.areIn(request);
    const bool byCookie = !byToken && hasCookie(request);
    if (request.method == "GET" || request.method == "HEAD") {
        const auto nonce = entryNonce(request.query);
        if (!nonce.empty())
            return enter(request, nonce, byToken || byCookie);
    }
    if (byToken)
        return nullptr;
    if (!byCookie)
        return unauthorized(request);
    if (!saysWhoAsks(request))
        return http::refusal(request, 403, "Requests that change something need an Origin.");
    return nullptr;
}

/// Answers a one-time URL. Who is known already uses it up too: it would otherwise wait for somebody else.
std::unique_ptr<http::HttpResponse> HttpNonceServiceProvider::enter(const http::HttpRequest& request,
                                                                    std::string_view nonce, bool known)
{
    const bool redeemed = request.method == "GET" && isSecretText(nonce) && nonces_->redeem(nonce, kEntryPurpose);
    if (!known && !redeemed)
        return unauthorized(request);

    auto answer = std::make_unique<http::HttpResponse>(303);
    answer->headers.add("Location", cleanLocation(request.target, request.query));
    answer->headers.add("Cache-Control", "no-store");
    answer->headers.add("Referrer-Policy", "no-referrer");
    if (!known)
        answer->headers.add("Set-Cookie", http::cookieNameOfPort(kCookieName, request.localPort) + "=" +
                                              grants_.add(request.localPort) + "; Path=/; HttpOnly; SameSite=Strict" +
                                              (request.secure ? "; Secure" : ""));
    return answer;
}

bool HttpNonceServiceProvider::hasCookie(const http::HttpRequest& request)
{
    for (const auto secret :
         http::cookieValues(request.headers, http::cookieNameOfPort(kCookieName, request.localPort)))
        if (isSecretText(secret) && grants_.use(secret, request.localPort))
            return true;
    return false;
}

} // namespace connector::security::v1
