#pragma once

#include <memory>
#include <optional>

#include <Poco/Net/HTTPClientSession.h>

#include "connector/http/client/ProxySettings.h"
#include "connector/http/client/TlsClient.h"
#include "connector/http/client/Waiter.h"

namespace connector::http::client {

/// A connection for one request. Used by one thread.
class Connection
{
public:
    virtual ~Connection() = default;

    /// Connects, through a proxy when there is one, and checks the server's certificate. Throws std::runtime_error
    /// "Cannot connect to host:port: Connection refused" and the like.
    static std::unique_ptr<Connection> open(const Url& url, const std::optional<Proxy>& proxy, TlsClient& tls,
                                            Waiter& waiter);

    virtual Poco::Net::HTTPClientSession& session() = 0;
    /// Bytes of the body as they come, 0 at the end of the connection. To be called once the head has been read.
    virtual std::size_t read(char* buffer, std::size_t length) = 0;
};

} // namespace connector::http::client
