#pragma once

#include <memory>

#include "connector/configuration/Configuration.h"
#include "connector/http/HttpServiceProvider.h"
#include "connector/security/NonceService.h"

namespace connector::security::v1 {

/// The guard that lets a request on only with proof: `Authorization: Bearer` and the token of this process. Everything
/// else gets 401, the same for a missing, malformed and wrong token.
class CONNECTOR_API HttpNonceServiceProvider final : public http::HttpServiceProvider
{
public:
    HttpNonceServiceProvider(std::shared_ptr<NonceService> nonces,
                             std::shared_ptr<configuration::Configuration> configuration);

    MessageFuture handleHttp(std::unique_ptr<http::HttpRequest>&& request, Address&& rest,
                             std::shared_ptr<Context>&& context) override;

private:
    const std::shared_ptr<NonceService> nonces_;
    const std::shared_ptr<configuration::Configuration> configuration_;
};

} // namespace connector::security::v1
