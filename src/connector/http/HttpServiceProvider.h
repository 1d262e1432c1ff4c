#pragma once

#include "connector/http/HttpMessage.h"

namespace connector::http {

/// Serves or filters HTTP requests. Answers are HttpResponse messages.
class CONNECTOR_API HttpServiceProvider : public ServiceProviderAPI<HttpServiceProvider>
{
public:
    /// I/O thread; must not block. A filter hands the request on with
    /// `context->connector()->handle(std::move(request), std::move(rest), std::move(context))`.
    virtual MessageFuture handleHttp(std::unique_ptr<HttpRequest>&& request, Address&& rest,
                                     std::shared_ptr<Context>&& context) = 0;
};

/// A provider at the end of a chain that answers by method; other methods get 405 with Allow, OPTIONS gets 204 with
/// Allow, HEAD is answered as GET (the engine leaves the body out).
class CONNECTOR_API RestServiceProvider : public HttpServiceProvider
{
public:
    MessageFuture handleHttp(std::unique_ptr<HttpRequest>&& request, Address&& rest,
                             std::shared_ptr<Context>&& context) override;

protected:
    using Request = std::unique_ptr<HttpRequest>;
    /// The methods among GET, POST, PUT and DELETE that a derived class overrides, for Allow: "GET", "POST" …
    virtual std::vector<std::string> methods() const = 0;
    virtual MessageFuture get(Request&& request, Address&& rest, std::shared_ptr<Context>&& context);
    virtual MessageFuture post(Request&& request, Address&& rest, std::shared_ptr<Context>&& context);
    virtual MessageFuture put(Request&& request, Address&& rest, std::shared_ptr<Context>&& context);
    virtual MessageFuture del(Request&& request, Address&& rest, std::shared_ptr<Context>&& context);
};

} // namespace connector::http
