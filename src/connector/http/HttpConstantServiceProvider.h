#pragma once

#include <string>

#include "connector/http/HttpServiceProvider.h"

namespace connector::http {

/// Gives every request the same answer, whatever its path and method.
class CONNECTOR_API HttpConstantServiceProvider final : public HttpServiceProvider
{
public:
    /// `body` is plain text in UTF-8.
    HttpConstantServiceProvider(unsigned short status, std::string body) : status_(status), body_(std::move(body)) {}

    MessageFuture handleHttp(std::unique_ptr<HttpRequest>&& request, Address&& rest,
                             std::shared_ptr<Context>&& context) override;

private:
    const unsigned short status_;
    const std::string body_;
};

} // namespace connector::http
