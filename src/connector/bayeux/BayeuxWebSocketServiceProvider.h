#pragma once

#include "connector/http/HttpServiceProvider.h"

namespace connector::bayeux {

/// Opens WebSockets of the bus: what they send goes as BayeuxRequests, one after the other, to what is left of the
/// address. Refuses what is no handshake as acceptWebSocket does.
class CONNECTOR_API BayeuxWebSocketServiceProvider final : public http::HttpServiceProvider
{
public:
    /// Of one message received; beyond it the socket is closed with 1009.
    static constexpr std::size_t kMaxMessageBytes = 1u << 20;
    /// Above BayeuxLimits::queueBytes, so that the bus decides what becomes of a client that reads too slowly.
    static constexpr std::size_t kMaxQueuedBytes = 8u << 20;

    MessageFuture handleHttp(std::unique_ptr<http::HttpRequest>&& request, Address&& rest,
                             std::shared_ptr<Context>&& context) override;
};

} // namespace connector::bayeux
