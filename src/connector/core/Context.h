#pragma once

#include <memory>
#include <string>

#include "connector/Export.h"
#include "connector/core/CancellationToken.h"

namespace connector {

class Connector;

namespace http {
class HttpSession;
}

/// Who asks, and how: travels with one request from filter to provider. Not locked: a request is in one pair of hands
/// at a time; after the serving provider has it, others only read.
class CONNECTOR_API Context
{
public:
    enum class Transport
    {
        process, ///< code of this process
        http,
        webSocket
    };

    explicit Context(std::weak_ptr<Connector> connector);

    /// The connector the request came to. Throws std::runtime_error "The connector has been stopped." when it is gone.
    std::shared_ptr<Connector> connector() const;

    const std::shared_ptr<CancellationToken>& cancellation() const noexcept { return cancellation_; }

    Transport transport() const noexcept { return transport_; }
    void setTransport(Transport transport) noexcept { transport_ = transport; }

    /// What kind of client asks ("browser", "mobile" …); empty when it did not say.
    const std::string& clientType() const noexcept { return clientType_; }
    void setClientType(std::string clientType) { clientType_ = std::move(clientType); }

    /// Null for a request outside an HTTP session.
    const std::shared_ptr<http::HttpSession>& httpSession() const noexcept { return httpSession_; }
    void setHttpSession(std::shared_ptr<http::HttpSession> session) { httpSession_ = std::move(session); }

private:
    std::weak_ptr<Connector> connector_;
    std::shared_ptr<CancellationToken> cancellation_;
    Transport transport_ = Transport::process;
    std::string clientType_;
    std::shared_ptr<http::HttpSession> httpSession_;
};

} // namespace connector
