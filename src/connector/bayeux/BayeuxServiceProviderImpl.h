#pragma once

#include "connector/bayeux/BayeuxServiceProvider.h"
#include "platform/rqe/MessageBus.h"

namespace connector::bayeux {

/// Serves a server, which runs while this does, to transports, other services and the host's scripts.
class CONNECTOR_API BayeuxServiceProviderImpl final : public BayeuxServiceProvider
{
public:
    /// Throws std::invalid_argument without a server.
    explicit BayeuxServiceProviderImpl(std::shared_ptr<BayeuxServer> server);

    Future<std::string> handle(BayeuxRequest& request) override;
    void webSocketClosed(const BayeuxWebSocketClosed& message) override;
    const std::shared_ptr<BayeuxServer>& server() const noexcept override { return server_; }

protected:
    void starting() override;
    void stopped() override;

private:
    const std::shared_ptr<BayeuxServer> server_;
    const std::shared_ptr<rqe::MessageBus> scripts_;
};

} // namespace connector::bayeux
