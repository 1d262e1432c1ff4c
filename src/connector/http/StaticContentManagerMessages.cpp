#include "connector/http/StaticContentManagerMessages.h"

#include "connector/http/StaticContentManagerServiceProvider.h"

namespace connector::http {

namespace {

template <class Response>
MessageFuture asMessage(Future<Response> response)
{
    return response.then(
        [](Future<Response> settled) -> std::unique_ptr<Message> { return std::make_unique<Response>(settled.get()); });
}

} // namespace

MessageFuture AddContentRoot::deliverTo(std::shared_ptr<StaticContentManagerServiceProvider> provider,
                                        std::unique_ptr<Message>&& message, Address&&, std::shared_ptr<Context>&&)
{
    return asMessage(provider->addContentRoot(static_cast<const AddContentRoot&>(*message)));
}

MessageFuture RemoveContentRoot::deliverTo(std::shared_ptr<StaticContentManagerServiceProvider> provider,
                                           std::unique_ptr<Message>&& message, Address&&, std::shared_ptr<Context>&&)
{
    return asMessage(provider->removeContentRoot(static_cast<const RemoveContentRoot&>(*message)));
}

MessageFuture ListContentRoots::deliverTo(std::shared_ptr<StaticContentManagerServiceProvider> provider,
                                          std::unique_ptr<Message>&& message, Address&&, std::shared_ptr<Context>&&)
{
    return asMessage(provider->listContentRoots(static_cast<const ListContentRoots&>(*message)));
}

} // namespace connector::http
