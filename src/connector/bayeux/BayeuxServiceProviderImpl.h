#pragma once

#include "connector/bayeux/BayeuxServiceProvider.h"
#include "connector/bayeux/BusSettings.h"
#include "platform/rqe/MessageBus.h"

namespace connector::bayeux {

/// Serves a server, which runs while this does, to transports, other services and the host's scripts.
class CONNECTOR_API BayeuxServiceProviderImpl final : public BayeuxServiceProvider
{
public:
    /// Throws std::invalid_argument without a server.
    explicit BayeuxServiceProviderImpl(std::shared_ptr<BayeuxServer> server);

    /// Has the server follow the keys `bus.…` while this lives. Before it serves.
    void configure(std::shared_ptr<configuration::Configuration> configuration);

    Future<std::string> handle(BayeuxRequest& request) override;
    void webSocketClosed(const BayeuxWebSocketClosed& message) override;
    const std::shared_ptr<BayeuxServer>& server() const noexcept override { return server_; }

protected:
    void starting() override;
    void stopped() override;

private:
    const std::shared_ptr<BayeuxServer> server_;
    std::unique_ptr<BusSettings> settings_;
    const std::shared_ptr<rqe::MessageBus> scripts_;
};

} // namespace connector::bayeux
