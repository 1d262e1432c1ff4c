#include "connector/http/HttpConstantServiceProvider.h"

namespace connector::http {

MessageFuture HttpConstantServiceProvider::handleHttp(std::unique_ptr<HttpRequest>&&, Address&&,
                                                      std::shared_ptr<Context>&&)
{
    auto response = body_.empty() ? std::make_unique<HttpResponse>(status_)
                                  : std::make_unique<HttpResponse>(status_, "text/plain; charset=utf-8", body_);
    response->headers.add("Cache-Control", "no-store");
    return makeReadyFuture(std::unique_ptr<Message>(std::move(response)));
}

} // namespace connector::http
