#include "connector/security/HttpNonceServiceProvider.h"

#include "connector/core/Connector.h"
#include "connector/http/Cookies.h"
#include "connector/security/EntryPage.h"
#include "connector/security/EntryUrl.h"
#include "connector/security/NonceGeneratorHelper.h"

namespace connector::security::v1 {
namespace {

/// Who serves files: the only one that a cookie leads to.
constexpr const char* kFileService = "connector/http/staticContent";

bool reads(const http::HttpRequest& request) { return request.method == "GET" || request.method == "HEAD"; }

std::size_t mostBrowsers(const configuration::Configuration& configuration)
{
    return static_cast<std::size_t>(configuration.getInteger("security.maxBrowsers"));
}

std::chrono::milliseconds idleTime(const configuration::Configuration& configuration)
{
    return std::chrono::minutes(configuration.getInteger("security.accessIdleMinutes"));
}

} // namespace

HttpNonceServiceProvider::HttpNonceServiceProvider(std::shared_ptr<NonceService> nonces,
                                                   std::shared_ptr<configuration::Configuration> configuration)
    : nonces_(std::move(nonces)), credentials_(*configuration),
      browsers_(mostBrowsers(*configuration), idleTime(*configuration)),
      pages_(nonces_, mostBrowsers(*configuration), idleTime(*configuration))
{}

MessageFuture HttpNonceServiceProvider::handleHttp(std::unique_ptr<http::HttpRequest>&& request, Address&& rest,
                                                   std::shared_ptr<Context>&& context)
{
    const bool forFile = !rest.empty() && rest.front() == kFileService;
    if (auto answer = check(*request, forFile))
        return makeReadyFuture<std::unique_ptr<Message>>(std::move(answer));

    const bool shown = forFile && isShownToSomebody(*request);
    const bool cookieOnly = request->cookieOnly;
    const bool asJson = cookieOnly && http::prefersJson(request->headers);
    // A page came by its ticket, because its cookie was lost: what it loads needs one.
    const std::string cookie =
        shown && !cookieOnly && !credentials_.areIn(*request) && !hasCookie(*request) ? newCookie(*request) : "";
    auto connector = context->connector();
    auto answer = connector->handle(std::move(request), std::move(rest), std::move(context));
    if (!cookieOnly && cookie.empty())
        return answer;
    return answer.then([=](MessageFuture settled) -> std::unique_ptr<Message> {
        auto message = settled.get();
        auto* response = dynamic_cast<http::HttpResponse*>(message.get());
        if (cookieOnly && response && response->status == 401)
            return unauthorized(shown, asJson);
        if (!cookie.empty() && response)
            response->headers.add("Set-Cookie", cookie);
        return message;
    });
}

std::unique_ptr<http::HttpResponse> HttpNonceServiceProvider::check(http::HttpRequest& request, bool forFile)
{
    const bool byToken = credentials_.areIn(request);
    if (reads(request)) {
        const auto nonce = entryNonce(request.query);
        if (!nonce.empty())
            return enter(request, nonce, byToken);
    }
    const bool posts = request.method == "POST";
    if (byToken || pages_.holdsKey(request)) {
        request.admit();
        return posts && request.path == PageAccess::kTicketPath ? pages_.giveTicket(request) : nullptr;
    }
    if (posts && request.path == PageAccess::kEntryPath) {
        auto answer = pages_.claim(request);
        if (!answer)
            return unauthorized(request);
        request.admit();
        return answer;
    }
    if (request.method == "GET" && pages_.redeemTicket(request)) {
        request.admit();
        return nullptr;
    }
    // Servers of other ports have the cookie, too: it makes nobody less of a stranger.
    request.cookieOnly = forFile && reads(request) && hasCookie(request);
    return request.cookieOnly ? nullptr : unauthorized(request);
}

/// Answers a one-time URL. Who is known already uses it up too: it would otherwise wait for somebody else. Under a name
/// that others had before, a service worker of theirs may stand between the browser and us: nobody enters by it.
std::unique_ptr<http::HttpResponse> HttpNonceServiceProvider::enter(const http::HttpRequest& request,
                                                                    std::string_view nonce, bool byToken)
{
    const bool byCookie = !byToken && hasCookie(request);
    const bool redeemed =
        request.method == "GET" && !request.sharedHost && isSecretText(nonce) && nonces_->redeem(nonce, kEntryPurpose);
    if (!byToken && !byCookie && !redeemed)
        return unauthorized(request);
    if (byToken || redeemed)
        request.admit();

    auto location = cleanLocation(request.target, request.query);
    if (redeemed && !byToken)
        location += "#entry=" + pages_.makeCode(request.localPort);
    auto answer = std::make_unique<http::HttpResponse>(303);
    answer->headers.add("Location", std::move(location));
    answer->headers.add("Cache-Control", "no-store");
    answer->headers.add("Referrer-Policy", "no-referrer");
    if (!byToken && !byCookie)
        answer->headers.add("Set-Cookie", newCookie(request));
    return answer;
}

bool HttpNonceServiceProvider::hasCookie(const http::HttpRequest& request)
{
    for (const auto secret :
         http::cookieValues(request.headers, http::cookieNameOfPort(kCookieName, request.localPort)))
        if (isSecretText(secret) && browsers_.use(secret, request.localPort))
            return true;
    return false;
}

std::string HttpNonceServiceProvider::newCookie(const http::HttpRequest& request)
{
    return http::cookieNameOfPort(kCookieName, request.localPort) + "=" + browsers_.add(request.localPort) +
           "; Path=/; HttpOnly; SameSite=Strict" + (request.secure ? "; Secure" : "");
}

} // namespace connector::security::v1
