#include "connector/http/HttpManagerMessages.h"

#include "connector/core/TypedAnswer.h"
#include "connector/http/HttpManagerServiceProvider.h"

namespace connector::http {

MessageFuture OpenPort::deliverTo(std::shared_ptr<HttpManagerServiceProvider> provider,
                                  std::unique_ptr<Message>&& message, Address&&, std::shared_ptr<Context>&&)
{
    return asMessage(provider->openPort(static_cast<const OpenPort&>(*message)));
}

MessageFuture ClosePort::deliverTo(std::shared_ptr<HttpManagerServiceProvider> provider,
                                   std::unique_ptr<Message>&& message, Address&&, std::shared_ptr<Context>&&)
{
    return asMessage(provider->closePort(static_cast<const ClosePort&>(*message)));
}

MessageFuture ListPorts::deliverTo(std::shared_ptr<HttpManagerServiceProvider> provider,
                                   std::unique_ptr<Message>&& message, Address&&, std::shared_ptr<Context>&&)
{
    return asMessage(provider->listPorts(static_cast<const ListPorts&>(*message)));
}

MessageFuture GetCounters::deliverTo(std::shared_ptr<HttpManagerServiceProvider> provider,
                                     std::unique_ptr<Message>&& message, Address&&, std::shared_ptr<Context>&&)
{
    return asMessage(provider->getCounters(static_cast<const GetCounters&>(*message)));
}

} // namespace connector::http
