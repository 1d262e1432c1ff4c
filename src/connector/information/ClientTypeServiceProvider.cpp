#include "connector/information/ClientTypeServiceProvider.h"

#include "connector/core/Connector.h"

namespace connector::information::v1 {

MessageFuture ClientTypeServiceProvider::handleRequest(std::unique_ptr<container::v1::ContainerRequest>&& request,
                                                       Address&& rest, std::shared_ptr<Context>&& context)
{
    context->setClientType(request->clientType);
    if (rest.empty())
        return makeReadyFuture<std::unique_ptr<Message>>(std::move(request));
    auto connector = context->connector();
    return connector->handle(std::move(request), std::move(rest), std::move(context));
}

} // namespace connector::information::v1
