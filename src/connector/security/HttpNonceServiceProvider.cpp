#include "connector/security/HttpNonceServiceProvider.h"

#include "connector/core/Connector.h"
#include "connector/http/AccessToken.h"

namespace connector::security::v1 {
namespace {

/// The token of a well-formed Authorization header (RFC 6750 §2.1), else an empty text.
std::string_view bearerToken(const http::HttpRequest& request)
{
    constexpr std::string_view kScheme = "bearer ";
    const auto* value = request.headers.find("Authorization");
    if (!value || request.headers.count("Authorization") != 1 || value->size() <= kScheme.size())
        return {};
    for (std::size_t i = 0; i < kScheme.size(); ++i)
        if (std::tolower(static_cast<unsigned char>((*value)[i])) != kScheme[i])
            return {};
    return std::string_view(*value).substr(kScheme.size());
}

} // namespace

HttpNonceServiceProvider::HttpNonceServiceProvider(std::shared_ptr<NonceService> nonces,
                                                   std::shared_ptr<configuration::Configuration> configuration)
    : nonces_(std::move(nonces)), configuration_(std::move(configuration))
{}

MessageFuture HttpNonceServiceProvider::handleHttp(std::unique_ptr<http::HttpRequest>&& request, Address&& rest,
                                                   std::shared_ptr<Context>&& context)
{
    if (!http::AccessToken::ofProcess().matches(bearerToken(*request))) {
        auto answer = http::refusal(*request, 401, "This server asks for an access token.");
        answer->headers.set("WWW-Authenticate", "Bearer");
        return makeReadyFuture<std::unique_ptr<Message>>(std::move(answer));
    }
    auto connector = context->connector();
    return connector->handle(std::move(request), std::move(rest), std::move(context));
}

} // namespace connector::security::v1
