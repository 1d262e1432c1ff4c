#pragma once

#include "connector/http/HttpRouter.h"
#include "connector/http/HttpServiceProvider.h"

namespace connector::http {

/// Hands each request on to the address of its path; 404 for a path without a route.
class CONNECTOR_API HttpRouterServiceProvider final : public HttpServiceProvider
{
public:
    explicit HttpRouterServiceProvider(std::shared_ptr<HttpRouter> router) : router_(std::move(router)) {}

    MessageFuture handleHttp(std::unique_ptr<HttpRequest>&& request, Address&& rest,
                             std::shared_ptr<Context>&& context) override;

private:
    const std::shared_ptr<HttpRouter> router_;
};

} // namespace connector::http
