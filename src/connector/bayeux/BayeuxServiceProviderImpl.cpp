#include "connector/bayeux/BayeuxServiceProviderImpl.h"

#include <stdexcept>

#include "connector/bayeux/ScriptBus.h"

namespace connector::bayeux {

BayeuxServiceProviderImpl::BayeuxServiceProviderImpl(std::shared_ptr<BayeuxServer> server)
    : server_(std::move(server)), scripts_(std::make_shared<ScriptBus>(server_))
{
    if (!server_)
        throw std::invalid_argument("The message bus's service needs its server.");
}

void BayeuxServiceProviderImpl::configure(std::shared_ptr<configuration::Configuration> configuration)
{
    settings_ = std::make_unique<BusSettings>(std::move(configuration), server_);
}

void BayeuxServiceProviderImpl::starting()
{
    server_->start();
    rqe::ProcessBus::setBus(scripts_);
}

void BayeuxServiceProviderImpl::stopped()
{
    rqe::ProcessBus::clearBus(scripts_.get());
    server_->stop();
}

Future<std::string> BayeuxServiceProviderImpl::handle(BayeuxRequest& request)
{
    return server_->handle(*request.body, request.origin);
}

void BayeuxServiceProviderImpl::webSocketClosed(const BayeuxWebSocketClosed& message)
{
    server_->webSocketClosed(message.webSocket);
}

} // namespace connector::bayeux
