#include "connector/http/HttpRouterServiceProvider.h"

#include "connector/core/Connector.h"

namespace connector::http {

MessageFuture HttpRouterServiceProvider::handleHttp(std::unique_ptr<HttpRequest>&& request, Address&&,
                                                    std::shared_ptr<Context>&& context)
{
    Address address = router_->findAddress(request->path);
    if (address.empty())
        return makeReadyFuture(std::unique_ptr<Message>(refusal(*request, 404, "Not Found.")));
    const auto connector = context->connector();
    return connector->handle(std::move(request), std::move(address), std::move(context));
}

} // namespace connector::http
