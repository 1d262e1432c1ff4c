#pragma once

#include <memory>

#include "connector/configuration/Configuration.h"
#include "connector/http/HttpRouter.h"
#include "connector/http/HttpServiceProvider.h"
#include "connector/security/Credentials.h"
#include "connector/security/NonceGeneratorHelper.h"

namespace connector::security {

namespace v1 {

/// Gives programs one-time addresses for browsers: POST with a bearer token, answered with
/// {"nonce": …, "url": "http://vendra-….localhost:8080/?nonce=…", "expiresInSeconds": 600}. No guard stands before it.
class CONNECTOR_API NonceGeneratorHttpServiceProvider final : public http::RestServiceProvider
{
public:
    NonceGeneratorHttpServiceProvider(std::shared_ptr<NonceGeneratorHelper> helper,
                                      std::shared_ptr<configuration::Configuration> configuration);

protected:
    std::vector<std::string> methods() const override;
    MessageFuture post(Request&& request, Address&& rest, std::shared_ptr<Context>&& context) override;

private:
    const std::shared_ptr<NonceGeneratorHelper> helper_;
    const std::shared_ptr<configuration::Configuration> configuration_;
    const Credentials credentials_;
};

} // namespace v1

/// Adds the route "/messageservice/nonce".
class CONNECTOR_API NonceGeneratorHttpRouteProvider final : public http::HttpRouteProvider
{
public:
    static constexpr const char* kPath = "/messageservice/nonce";

    NonceGeneratorHttpRouteProvider(std::shared_ptr<http::HttpRouter> router, Address address);
};

} // namespace connector::security
