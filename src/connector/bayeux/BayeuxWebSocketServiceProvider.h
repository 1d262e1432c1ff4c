#pragma once

#include "connector/configuration/Configuration.h"
#include "connector/http/HttpServiceProvider.h"

namespace connector::bayeux {

/// Opens WebSockets of the bus: what they send goes as BayeuxRequests, one after the other, to what is left of the
/// address. Refuses what is no handshake as acceptWebSocket does.
class CONNECTOR_API BayeuxWebSocketServiceProvider final : public http::HttpServiceProvider
{
public:
    /// Before it serves. What the keys say holds for WebSockets that are opened later; without a configuration their
    /// defaults do.
    void configure(std::shared_ptr<const configuration::Configuration> configuration)
    {
        configuration_ = std::move(configuration);
    }

    MessageFuture handleHttp(std::unique_ptr<http::HttpRequest>&& request, Address&& rest,
                             std::shared_ptr<Context>&& context) override;

private:
    std::shared_ptr<const configuration::Configuration> configuration_;
};

} // namespace connector::bayeux
