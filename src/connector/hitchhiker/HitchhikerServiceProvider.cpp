#include "connector/hitchhiker/HitchhikerServiceProvider.h"

#include <utility>

#include "connector/core/Connector.h"
#include "connector/core/ServiceFault.h"

namespace connector::hitchhiker::v1 {

using container::v1::ContainerRequest;
using container::v1::ContainerResponse;

MessageFuture QueueHitchhiker::deliverTo(std::shared_ptr<HitchhikerServiceProvider> provider,
                                         std::unique_ptr<Message>&&, Address&&, std::shared_ptr<Context>&&)
{
    return makeReadyFuture<std::unique_ptr<Message>>(
        std::make_unique<QueueHitchhikerResponse>(provider->queueHitchhiker(*this)));
}

QueueHitchhikerResponse HitchhikerServiceProviderImpl::queueHitchhiker(const QueueHitchhiker& request)
{
    return QueueHitchhikerResponse(service_->queueMessage(request.session, request.message));
}

MessageFuture HitchhikerContainerServiceProvider::handleRequest(std::unique_ptr<ContainerRequest>&& request,
                                                                Address&& rest, std::shared_ptr<Context>&& context)
{
    if (!rest.empty())
        return context->connector()->handle(std::move(request), std::move(rest), std::shared_ptr<Context>(context));
    return answerEach(std::move(request), [this](std::unique_ptr<Message> message) {
        const auto* queued = dynamic_cast<const QueueHitchhiker*>(message.get());
        if (!queued)
            throw ServiceFault("unknownType", "Only QueueHitchhiker messages are taken here.");
        return makeReadyFuture<std::unique_ptr<Message>>(
            std::make_unique<QueueHitchhikerResponse>(service_->queueMessage(queued->session, queued->message)));
    });
}

MessageFuture HitchhikerContainerServiceProvider::handleResponse(std::unique_ptr<ContainerResponse>&& response,
                                                                 Address&& rest, std::shared_ptr<Context>&& context)
{
    // A client that went away, or whose one answer goes out alone, takes nothing along: it waits for the next time.
    const auto& session = context->httpSession();
    if (session && !response->bare && !context->cancellation()->isCancelled()) {
        auto queued = service_->getQueuedMessages(session);
        for (auto& message : queued.messages)
            response->entries.push_back(
                {{}, std::make_unique<Hitchhiker>(std::move(message), std::exchange(queued.dropped, 0))});
    }
    return ContainerServiceProvider::handleResponse(std::move(response), std::move(rest), std::move(context));
}

} // namespace connector::hitchhiker::v1
