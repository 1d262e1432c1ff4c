#pragma once

#include "connector/bayeux/BayeuxServiceProvider.h"

namespace connector::bayeux {

/// Serves a server, which runs while this does.
class CONNECTOR_API BayeuxServiceProviderImpl final : public BayeuxServiceProvider
{
public:
    /// Throws std::invalid_argument without a server.
    explicit BayeuxServiceProviderImpl(std::shared_ptr<BayeuxServer> server);

    Future<BayeuxResponse> handle(BayeuxRequest& request) override;
    void webSocketClosed(const BayeuxWebSocketClosed& message) override;
    const std::shared_ptr<BayeuxServer>& server() const noexcept override { return server_; }

protected:
    void starting() override { server_->start(); }
    void stopped() override { server_->stop(); }

private:
    const std::shared_ptr<BayeuxServer> server_;
};

} // namespace connector::bayeux
