#pragma once

#include "connector/bayeux/BayeuxMessages.h"

namespace connector::bayeux {

/// The bus as a service: transports send it what their clients say, other services reach the server through it.
class CONNECTOR_API BayeuxServiceProvider : public ServiceProviderAPI<BayeuxServiceProvider>
{
public:
    /// The server's `handle`.
    virtual Future<std::string> handle(BayeuxRequest& request) = 0;
    virtual void webSocketClosed(const BayeuxWebSocketClosed& message) = 0;
    virtual const std::shared_ptr<BayeuxServer>& server() const noexcept = 0;
};

} // namespace connector::bayeux
