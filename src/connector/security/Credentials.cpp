#include "connector/security/Credentials.h"

#include <string_view>

#include "connector/common/Log.h"
#include "connector/http/AccessToken.h"
#include "connector/http/HttpText.h"

namespace connector::security::v1 {

namespace {

/// The token of a well-formed Authorization field, else an empty text.
std::string_view bearerToken(const http::HttpRequest& request)
{
    constexpr std::string_view kScheme = "Bearer ";
    const auto* value = request.headers.find("Authorization");
    if (!value || request.headers.count("Authorization") != 1 ||
        !http::equalsIgnoringCase(std::string_view(*value).substr(0, kScheme.size()), kScheme))
        return {};
    return std::string_view(*value).substr(kScheme.size());
}

} // namespace

Credentials::Credentials(const configuration::Configuration& configuration, bool logProblem)
{
    const auto file = configuration.getString("security.accessKeyFile");
    if (file.empty())
        return;
    try {
        key_.emplace(file);
    } catch (const std::exception& error) {
        if (logProblem)
            common::log("connector.security", common::LogLevel::error, error.what());
    }
}

bool Credentials::areIn(const http::HttpRequest& request) const
{
    const auto token = bearerToken(request);
    if (token.empty())
        return false;
    return http::AccessToken::ofProcess().matches(token) || (key_ && key_->matches(token));
}

} // namespace connector::security::v1
