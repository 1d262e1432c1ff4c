#include "connector/http/StaticContentManagerMessages.h"

#include "connector/core/TypedAnswer.h"
#include "connector/http/StaticContentManagerServiceProvider.h"

namespace connector::http {

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
