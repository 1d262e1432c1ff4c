#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "connector/Export.h"
#include "connector/core/ServiceProvider.h"
#include "connector/http/PocoHttpsServer.h"

namespace connector::http {

class HttpManagerServiceProvider;

/// Base of the requests to "connector/http/manager".
using HttpManagerMessage = ServiceMessage<HttpManagerServiceProvider>;

/// Listens on one more port.
class CONNECTOR_API OpenPort final : public HttpManagerMessage
{
public:
    explicit OpenPort(std::uint16_t portNumber = 0) : port(portNumber) {}
    std::uint16_t port; ///< 0: any free one

    MessageFuture deliverTo(std::shared_ptr<HttpManagerServiceProvider> provider, std::unique_ptr<Message>&& message,
                            Address&& address, std::shared_ptr<Context>&& context) override;
};

class CONNECTOR_API OpenPortResponse final : public Message
{
public:
    std::uint16_t port = 0;
    std::string url; ///< "http://127.0.0.1:31515/"
};

/// Closes a port. Requests that came in on it are answered with 503, this one's too.
class CONNECTOR_API ClosePort final : public HttpManagerMessage
{
public:
    explicit ClosePort(std::uint16_t portNumber = 0) : port(portNumber) {}
    std::uint16_t port;

    MessageFuture deliverTo(std::shared_ptr<HttpManagerServiceProvider> provider, std::unique_ptr<Message>&& message,
                            Address&& address, std::shared_ptr<Context>&& context) override;
};

class CONNECTOR_API ClosePortResponse final : public Message
{
public:
    std::uint16_t port = 0;
};

class CONNECTOR_API ListPorts final : public HttpManagerMessage
{
public:
    MessageFuture deliverTo(std::shared_ptr<HttpManagerServiceProvider> provider, std::unique_ptr<Message>&& message,
                            Address&& address, std::shared_ptr<Context>&& context) override;
};

class CONNECTOR_API ListPortsResponse final : public Message
{
public:
    struct Port
    {
        std::uint16_t port = 0;
        std::string url;
    };
    std::vector<Port> ports; ///< in the order in which they were opened
};

/// What all open ports together have done.
class CONNECTOR_API GetCounters final : public HttpManagerMessage
{
public:
    MessageFuture deliverTo(std::shared_ptr<HttpManagerServiceProvider> provider, std::unique_ptr<Message>&& message,
                            Address&& address, std::shared_ptr<Context>&& context) override;
};

class CONNECTOR_API GetCountersResponse final : public Message
{
public:
    ServerCounters counters;
};

} // namespace connector::http
